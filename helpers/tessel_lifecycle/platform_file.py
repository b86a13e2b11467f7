"""The host's `name = value` files in /etc/tessel, which the daemon reads, too.

What counts here has to count there: this reads as Boost.PropertyTree's INI parser does, byte for byte. Lines end with
LF, blanks are those of the C locale, comments begin with ; or #, and what follows a [section] belongs to it.
"""

from tessel_lifecycle import files


def read(path):
    """Names and values before any [section]; a file that is missing has none.

    @throws OSError; ValueError for a malformed file, of which nothing counts
    """
    try:
        with files.open_regular(path) as file:
            members = _parse(file.read())
    except FileNotFoundError:
        return {}
    return {_text(name): _text(value) for name, value in members.items() if isinstance(value, bytes)}


def _text(data):
    return data.decode(errors="surrogateescape")


def _parse(content):
    """Name to value, and a section's name to its own names and values."""
    found = members = {}
    for number, line in enumerate(content.split(b"\n"), 1):
        line = line.strip()
        if line.startswith(b"["):
            name, bracket, _ = line[1:].partition(b"]")
            if members is not found and not members:
                found.popitem()  # an empty section leaves nothing, so that its name may come again
            members = _add(found, name, {}, bool(bracket), number)
        elif line and not line.startswith((b";", b"#")):
            name, equals, value = line.partition(b"=")
            _add(members, name, value.strip(), bool(name and equals), number)
    return found


def _add(members, name, value, is_whole, number):
    name = name.strip()
    if not is_whole or name in members:
        raise ValueError(f"line {number}: incomplete, or a name for the second time")
    members[name] = value
    return value
