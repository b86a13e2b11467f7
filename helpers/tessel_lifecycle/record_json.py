"""JSON as records of tasks are written in: the daemon reads them, too, and what one refuses the other has to refuse."""

import contextlib
import json
import math
import re
import sys

MOST_DEPTH = 1000  # containers within containers

# An escape that begins a pair of surrogates which none ends.
HALF_A_PAIR = re.compile(rb"(?<!\\)(?:\\\\)*\\u[dD][89abAB][0-9a-fA-F]{2}(?!\\u[dD][c-fC-F])")


def loads(text):
    """The value of a text, bytes. @throws ValueError"""
    with _room_for_depth():
        value = json.loads(text.decode(errors="surrogateescape"), parse_constant=_refuse, parse_float=_finite,
                           parse_int=_integer)
    if b"\\u" in text and HALF_A_PAIR.search(text):
        raise ValueError("half a pair of surrogates")
    return _shallow(value)


def dumps(value):
    """Compact JSON, as bytes, that keeps even bytes which are not UTF-8 as they are."""
    with _room_for_depth():
        try:
            text = json.dumps(value, separators=(",", ":"), allow_nan=False, ensure_ascii=False)
            return text.encode(errors="surrogateescape")
        except UnicodeEncodeError:
            return json.dumps(value, separators=(",", ":")).encode()


def _refuse(constant):
    raise ValueError(f"{constant} is not a JSON number")


@contextlib.contextmanager
def _room_for_depth():
    """The parser and the printer recurse; whatever this process is about, records may be this deep."""
    before = sys.getrecursionlimit()
    sys.setrecursionlimit(before + MOST_DEPTH + 100)
    try:
        yield
    except RecursionError:
        raise ValueError("nested too deeply") from None
    finally:
        sys.setrecursionlimit(before)


def _finite(number):
    if not math.isfinite(value := float(number)):
        raise ValueError(f"{number:.40} is too large")
    return value


def _integer(number):
    if len(number) > 300:
        _finite(number)
    return int(number)


def _shallow(value):
    level = [value]
    for _ in range(MOST_DEPTH + 1):
        level = [child for parent in level if isinstance(parent, (dict, list))
                 for child in (parent.values() if isinstance(parent, dict) else parent)]
        if not level:
            return value
    raise ValueError("nested too deeply")
