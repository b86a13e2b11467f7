"""JSON documents that somebody else wrote: read within bounds, and taken apart field by field.

Everything here raises ValueError, with a text that names the place, for a document that is not what it should be.
"""

import json
import math
import re

_MISSING = object()
_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,127}")


def parse(data):
    """The value of a JSON text, bytes in UTF-8; refuses what this system's other readers could not read back."""
    def refuse_constant(name):
        raise ValueError(f"{name} is not a JSON number")

    def unique(members):
        fields = dict(members)
        if len(fields) != len(members):
            raise ValueError("a member occurs twice")
        return fields

    def finite(number):
        if not math.isfinite(value := float(number)):
            raise ValueError(f"{number:.40} is too large")
        return value

    document = data.decode()  # strictly UTF-8, where the parser would take other encodings as well
    try:
        value = json.loads(document, parse_constant=refuse_constant, parse_float=finite, object_pairs_hook=unique)
    except RecursionError:
        raise ValueError("nested too deeply") from None
    if "\\u" in document:
        json.dumps(value, ensure_ascii=False).encode()  # halves of surrogate pairs end here
    return value


MOST_DEPTH = 100


def shallow(value):
    """The value, if it is not nested so deeply that something may fail to write it or to read it back."""
    level = [value]
    for _ in range(MOST_DEPTH):
        level = [child for parent in level if isinstance(parent, (dict, list))
                 for child in (parent.values() if isinstance(parent, dict) else parent)]
        if not level:
            return value
    raise ValueError("nested too deeply")


def compact(value):
    """The JSON text of a value on one line, ASCII only."""
    return json.dumps(value, separators=(",", ":"))


class Fields:
    """The members of a JSON object, taken one by one; `place` names the object in messages."""

    def __init__(self, value, place="document"):
        if not isinstance(value, dict):
            raise ValueError(f"{place}: not an object")
        self.value, self.place = value, place

    def take(self, name, kind, default=_MISSING):
        """The member `name`, converted by `kind`; a missing or null one is `default`, or an error without a default."""
        value = self.value.get(name)
        if value is None:
            if default is _MISSING:
                raise FieldError(name, f"{self.place}: member '{name}' is missing")
            return default
        try:
            return kind(value)
        except FieldError:
            raise
        except ValueError as error:
            raise FieldError(name, f"{self.place}, member '{name}': {error}") from None


class FieldError(ValueError):
    """A member that is not what it has to be, or not there; `field` is its name."""

    def __init__(self, field, text):
        super().__init__(text)
        self.field = field


def text(value):
    """A string."""
    if not isinstance(value, str) or len(value) > 10000:
        raise ValueError("not a text")
    return value


def name(value):
    """A name that is safe in a path and as one word of a command line: letters, digits, '.', '_' and '-', of which the
    first is a letter or digit."""
    if not isinstance(value, str) or not _NAME.fullmatch(value):
        raise ValueError(f"not a name: {value!r:.80}")
    return value


def flag(value):
    """True or false."""
    if not isinstance(value, bool):
        raise ValueError("neither true nor false")
    return value


def size(value):
    """A number of bytes."""
    if isinstance(value, bool) or not isinstance(value, int) or not 0 <= value < 2 ** 63:
        raise ValueError("not a size")
    return value


def sha256(value):
    """A SHA-256 digest in lower-case hexadecimal."""
    if not isinstance(value, str) or len(value) != 64 or value.strip("0123456789abcdef"):
        raise ValueError("not a SHA-256 digest")
    return value


def list_of(kind, most=100000):
    """Converts each element of a list."""
    def convert(value):
        if not isinstance(value, list) or len(value) > most:
            raise ValueError("not a list")
        return [kind(element) for element in value]
    return convert


def map_of(kind, key=name):
    """Converts keys and values of an object."""
    def convert(value):
        if not isinstance(value, dict):
            raise ValueError("not an object")
        return {key(k): kind(v) for k, v in value.items()}
    return convert
