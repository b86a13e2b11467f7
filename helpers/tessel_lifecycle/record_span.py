"""Where one record stands in the text of the task status file, found without decoding the others.

The text is a JSON object (RFC 8259), task identifier to record, written by whichever program. What is told here is
certain, unless the text is no JSON in a way that leaves its strings and brackets in order; in every doubt, nothing is.
"""

import json
import re

_BLANKS = b" \t\n\r"
_WINDOW = 1 << 18       # bytes looked at together; bounds the memory for copies
_MOST_DEPTH = 100       # of brackets in a window, and left open behind it
_FIRST_GUESS = 1 << 12  # bytes that a record mostly has less than

_NO_MARKS = bytes(set(range(256)) - set(b'"{}[]'))
_STRING = re.compile(rb'"[^"]*"')
_BLANKS_HERE = re.compile(rb"[ \t\n\r]*")


class _Doubt(Exception):
    """The text is not understood well enough."""


def find(text, task_id):
    """The record of a task in `text`, bytes: (start, end, the record as a dict).

    None when there is none or more than one, when it is no object, or when the text is no object or not whole.
    """
    try:
        start = _only_value(text, b'"%s"' % task_id.encode())
        record, end = _decoded(text, start)
        first, last = _behind_blanks(text, 0), len(text.rstrip(_BLANKS)) - 1
        whole = text[first:first + 1] == b"{" and text[last:last + 1] == b"}" and end <= last
        if whole and _is_balanced(text, first + 1, start) and _is_balanced(text, end, last):
            return start, end, record
    except (_Doubt, ValueError, RecursionError):
        pass
    return None


def _only_value(text, name):
    """The start of the value of the only member of that name, in whichever object it is.

    A quotation mark before which no backslash stands begins or ends a string, and the name has none within: two such
    marks around it make it a whole string, and one that a colon follows is a member's name.
    """
    found, place = [], text.find(name)
    while place >= 0:
        behind = _behind_blanks(text, place + len(name))
        if text[behind:behind + 1] == b":" and text[place - 1:place] != b"\\":
            found.append(_behind_blanks(text, behind + 1))
        place = text.find(name, place + 1)
    if len(found) != 1:
        raise _Doubt
    return found[0]


def _behind_blanks(text, place):
    return _BLANKS_HERE.match(text, place).end()


def _decoded(text, start):
    """The object that begins there, and where it ends; decoded from pieces that grow until one has it whole."""
    if text[start:start + 1] != b"{":
        raise _Doubt
    length, decoder = _FIRST_GUESS, json.JSONDecoder(parse_constant=_refuse)
    while True:
        piece = text[start:start + length].decode(errors="surrogateescape")
        try:
            record, end = decoder.raw_decode(piece)
            return record, start + len(piece[:end].encode(errors="surrogateescape"))
        except ValueError:
            if start + length >= len(text):
                raise
        length *= 4


def _refuse(constant):
    raise ValueError(f"{constant} is not a JSON number")


def _is_balanced(text, start, end):
    """Whether each bracket outside strings has its counterpart between two places, neither of which is in a string."""
    left, in_string = b"", b""
    while start < end:
        window = text[start:min(start + _WINDOW, end)]
        if (len(window) - len(window.rstrip(b"\\"))) % 2:
            window = window[:-1]  # it began an escape
        if not window:
            raise _Doubt
        start += len(window)
        marks = window.replace(b"\\\\", b"").replace(b'\\"', b"").translate(None, _NO_MARKS)
        # Two quotation marks side by side say nothing about which brackets are in a string.
        marks = _STRING.sub(b"", (in_string + marks).replace(b'""', b""))
        marks, in_string, _ = marks.partition(b'"')
        left = _without_pairs(left + marks)
    return not left and not in_string


def _without_pairs(brackets):
    for _ in range(_MOST_DEPTH):
        shorter = brackets.replace(b"{}", b"").replace(b"[]", b"")
        if len(shorter) == len(brackets):
            break
        brackets = shorter
    if len(brackets) > _MOST_DEPTH:
        raise _Doubt
    return brackets
