"""Versions, dotted numbers with an optional `-release` suffix, and ranges of them."""

import bisect
import functools
import re

MOST_LENGTH = 100  # with a name of the longest, it is still a file's name
_FORM = re.compile(r"[0-9]{1,9}(\.[0-9]{1,9}){0,15}(-[0-9]{1,9}(\.[0-9]{1,9}){0,15})?")


def _numbers(text):
    numbers = [int(part) for part in text.split(".")] if text else []
    while numbers and numbers[-1] == 0:
        numbers.pop()
    return tuple(numbers)


@functools.total_ordering
class Version:
    """Compares number by number, missing numbers counting as 0: 1.0 = 1.0.0 < 1.0-1 < 1.0-2 < 1.0.1.

    Raises ValueError for a text that is not a version.
    """

    __slots__ = ("text", "_key")

    def __init__(self, text):
        if not isinstance(text, str) or len(text) > MOST_LENGTH or not _FORM.fullmatch(text):
            raise ValueError(f"not a version: {text!r:.80}")
        version, _, release = text.partition("-")
        self.text, self._key = text, (_numbers(version), _numbers(release))

    def __eq__(self, other):
        return isinstance(other, Version) and self._key == other._key

    def __lt__(self, other):
        return self._key < other._key

    def __hash__(self):
        return hash(self._key)

    def __str__(self):
        return self.text

    __repr__ = __str__


class Range:
    """What versions are meant: `*`, a version, or comparisons that all must hold, as in `>=1.2-1,<2`."""

    _COMPARISONS = {
        ">=": lambda a, b: a >= b, "<=": lambda a, b: a <= b, ">": lambda a, b: a > b,
        "<": lambda a, b: a < b, "=": lambda a, b: a == b, "": lambda a, b: a == b}
    _TERM = re.compile(r"(>=|<=|>|<|=|)([0-9].*)")

    def __init__(self, text):
        if not isinstance(text, str) or len(text) > 1000:
            raise ValueError(f"not a version range: {text!r:.80}")
        self.text, self._terms = text, []
        if text == "*":
            return
        for term in text.split(","):
            match = self._TERM.fullmatch(term.strip())
            if not match:
                raise ValueError(f"not a version range: {text!r:.80}")
            self._terms.append((match[1], Version(match[2])))

    def __contains__(self, version):
        return all(self._COMPARISONS[comparison](version, bound) for comparison, bound in self._terms)

    def span(self, versions):
        """Which of ascending versions are meant, as (first, end): no range leaves out versions between two others."""
        first, end = 0, len(versions)
        for comparison, bound in self._terms:
            below, up_to = bisect.bisect_left(versions, bound), bisect.bisect_right(versions, bound)
            if comparison not in ("<", "<="):
                first = max(first, up_to if comparison == ">" else below)
            if comparison not in (">", ">="):
                end = min(end, below if comparison == "<" else up_to)
        return first, max(first, end)

    def __str__(self):
        return self.text
