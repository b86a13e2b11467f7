"""Where records stand in the text of the task status file, found without decoding the others.

The text is a JSON object (RFC 8259), task identifier to record, written by whichever program. What is told here is
certain, unless the text is no JSON in a way that leaves its strings and brackets in order; in every doubt, nothing is.
"""

import json
import re

from tessel_lifecycle import record_json

_BLANKS = b" \t\n\r"
_WINDOW = 1 << 18       # bytes looked at together; bounds the memory for copies
_MOST_DEPTH = 100       # of brackets in a window, and left open behind it
_FIRST_GUESS = 1 << 12  # bytes that a record mostly has less than
_MOST_STARTS = 5        # looked at for one that the last records can begin with

_NO_MARKS = bytes(set(range(256)) - set(b'"{}[]'))
_STRING = re.compile(rb'"[^"]*"')
_BLANKS_HERE = re.compile(rb"[ \t\n\r]*")
# What the daemon's reader refuses a whole file for, or what looks like that.
_TOO_LARGE = re.compile(rb"[:,\[ \t\r\n]-?(?:[0-9]{300}|[0-9][0-9.]*[eE][+]?[0-9]{3})")
_PAIR_BEGINS = re.compile(rb"\\u[dD][89abAB]")
_MOST_LOOKS = 20  # at what only looks like such a number
_ESCAPED_NAME = re.compile(rb"\\u00(?:2[dD]|3[0-9]|[46][1-6])")
# Names that tasks have: where no backslash stands before one, it is a member's name.
_NAME = rb'(?<!\\)"[0-9a-fA-F]{8}-[0-9a-fA-F-]{27}"[ \t\n\r]*:[ \t\n\r]*'
_RECORD = re.compile(_NAME + rb"\{")
_UNDER_WAY = re.compile(_NAME + rb'(?=\{"status":"(?:PENDING|RUNNING)")')


class _Doubt(Exception):
    """The text is not understood well enough."""


def find(text, task_id, careful=True):
    """The record of a task in `text`, bytes: (start, end, the record as a dict).

    None when there is none or more than one, when it is no object, or when the text is no object or not whole; and if
    `careful`, when it holds what the daemon may refuse it for.
    """
    try:
        start = _only_value(text, b'"%s"' % task_id.encode())
        record, end = _decoded(text, start)
        if _is_whole(text, start, end) and not (careful and _may_be_refused(text)):
            return start, end, record
    except (_Doubt, ValueError):
        pass
    return None


def find_end(text, task_id):
    """Where a record can be added, if the task has none: (place, whether others stand before it). None in doubt."""
    try:
        first, last = _bounds(text)
        if (text.find(b'"%s"' % task_id.encode()) >= 0 or _ESCAPED_NAME.search(text) or _may_be_refused(text)
                or not _is_whole(text, last, last)):
            return None
        return last, _behind_blanks(text, first + 1) < last
    except _Doubt:
        return None


def still_asked_for(text, most, own):
    """Of a text that is no more than read, the members that somebody may still ask for or change: the last ones, as
    many as go into `most` bytes, and before those what tasks under way have, but not the value at the place `own`.

    Returns pieces of bytes, whole members each. Where the text is not understood, there are fewer.
    """
    name, end = (text.rfind(b'"', 0, text.rfind(b'"', 0, own[0])), own[1]) if own else (len(text), len(text))
    try:
        start, last = _last_records(text, most)
        pieces = [text[start:min(name, last)], text[max(end, start):last]]
        earlier = _under_way(text, start, most, name)
        return [piece for piece in (*earlier, *(piece.strip(_BLANKS + b",") for piece in pieces)) if piece]
    except (_Doubt, ValueError):
        return []


def _last_records(text, most):
    """From where to where they stand; all of them begin with a name that tasks have."""
    _, last = _bounds(text)
    for found, _ in zip(_RECORD.finditer(text, max(last - most, 0), last), range(_MOST_STARTS)):
        if _is_balanced(text, found.start(), last):
            return found.start(), last
    return last, last


def _under_way(text, end, most, own):
    for found in _UNDER_WAY.finditer(text, 0, end):
        if found.start() == own:
            continue
        _, behind = _decoded(text, found.end())
        most -= behind - found.start()
        if most > 0:
            yield text[found.start():behind]


def _bounds(text):
    """The places of the outermost brackets."""
    first, last = _behind_blanks(text, 0), len(text) - 1
    while last > first and text[last:last + 1] in (b" ", b"\t", b"\n", b"\r"):
        last -= 1
    if text[first:first + 1] != b"{" or text[last:last + 1] != b"}":
        raise _Doubt
    return first, last


def _is_whole(text, start, end):
    """Whether the text is one object around what stands there."""
    first, last = _bounds(text)
    return first < start and end <= last and _is_balanced(text, first + 1, start) and _is_balanced(text, end, last)


def _may_be_refused(text):
    for looks, found in enumerate(_TOO_LARGE.finditer(text)):
        if looks == _MOST_LOOKS or not _is_in_string(text, found.start() + 1):
            return True
    return bool(_PAIR_BEGINS.search(text) and record_json.HALF_A_PAIR.search(text))


def _is_in_string(text, place):
    return sum(window.count(b'"') for window in _without_escapes(text, 0, place)) % 2 == 1


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
    length, decoder = _FIRST_GUESS, json.JSONDecoder()
    while True:
        piece = text[start:start + length].decode(errors="surrogateescape")
        try:
            _, end = decoder.raw_decode(piece)
            whole = piece[:end].encode(errors="surrogateescape")
            return record_json.loads(whole), start + len(whole)
        except RecursionError:
            raise _Doubt from None
        except ValueError:
            if start + length >= len(text):
                raise
        length *= 4


def _is_balanced(text, start, end):
    """Whether each bracket outside strings has its counterpart between two places, neither of which is in a string."""
    left, in_string = b"", b""
    for window in _without_escapes(text, start, end):
        marks = window.translate(None, _NO_MARKS)
        # Two quotation marks side by side say nothing about which brackets are in a string.
        marks = _STRING.sub(b"", (in_string + marks).replace(b'""', b""))
        marks, in_string, _ = marks.partition(b'"')
        left = _without_pairs(left + marks)
    return not left and not in_string


def _without_escapes(text, start, end):
    """The text between two places, in windows, without escaped quotation marks and backslashes."""
    while start < end:
        window = text[start:min(start + _WINDOW, end)]
        if (len(window) - len(window.rstrip(b"\\"))) % 2:
            window = window[:-1]  # it began an escape
        if not window:
            raise _Doubt
        start += len(window)
        yield window.replace(b"\\\\", b"").replace(b'\\"', b"")


def _without_pairs(brackets):
    for _ in range(_MOST_DEPTH):
        shorter = brackets.replace(b"{}", b"").replace(b"[]", b"")
        if len(shorter) == len(brackets):
            break
        brackets = shorter
    if len(brackets) > _MOST_DEPTH:
        raise _Doubt
    return brackets
