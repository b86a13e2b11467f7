"""The host's `name = value` files in /etc/tessel; a file that is missing says nothing."""


def read(path):
    """Names and values of a file; comments (; or #) and [sections] are passed over. @throws OSError, ValueError"""
    values = {}
    try:
        with open(path, encoding="utf-8") as file:
            for line in file:
                name, equals, value = line.partition("=")
                if equals and name.strip() and name.lstrip()[0] not in ";#[":
                    values[name.strip()] = value.strip()
    except FileNotFoundError:
        pass
    return values
