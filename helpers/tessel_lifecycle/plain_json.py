"""Values in the framework's plain (typed) JSON, as a task's result holds them."""


def structure(identifier, **fields):
    """A structure of the system's own interfaces: `identifier` without the leading "com.tessel."."""
    return {"STRUCTURE": {"com.tessel." + identifier: fields}}


def optional(value):
    """A set or, for None, an unset optional."""
    return {"OPTIONAL": value}


def map_value(entries):
    """A map with string keys."""
    return [{"STRUCTURE": {"map-entry": {"key": key, "value": value}}} for key, value in sorted(entries.items())]


def message(error):
    """An ImageError as a localizable message."""
    return structure("orbi.std.localizable_message", id=error.identifier, default_message=error.text,
                     args=error.arguments, localized=optional(None))
