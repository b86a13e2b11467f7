"""Values in the framework's plain (typed) JSON, as a task's result and the daemon's answers hold them."""

from tessel_lifecycle.document import Fields


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


def error_value(name, *messages):
    """One of the framework's standard errors."""
    return {"ERROR": {"com.tessel.orbi.std.errors." + name: {"messages": list(messages), "data": optional(None)}}}


def opened(value, form="STRUCTURE"):
    """The identifier and the Fields of a structure, or with "ERROR" of an error. @throws ValueError"""
    members = Fields(value).take(form, Fields).value
    if len(members) != 1:
        raise ValueError(f"not one {form}")
    ((identifier, fields),) = members.items()
    return identifier, Fields(fields, identifier)


def option(value):
    """What is in an optional, or None. @throws ValueError"""
    return Fields(value).value.get("OPTIONAL")
