import itertools

import pytest
from tessel_lifecycle.version import Range, Version


def test_versions_compare_number_by_number():
    ascending = ["0", "1", "1-1", "1-1.5", "1-2", "1-10", "1.0.1", "1.2", "1.9-99", "1.10-1", "2.0.0-1", "10"]
    for (i, a), (j, b) in itertools.product(enumerate(ascending), repeat=2):
        assert (Version(a) < Version(b)) == (i < j) and (Version(a) == Version(b)) == (i == j), (a, b)
    assert Version("1.0") == Version("1.0.0-0") and hash(Version("1.0")) == hash(Version("1"))


@pytest.mark.parametrize("text", ["", "1.", ".1", "1..2", "1-", "-1", "1-1-1", "a", "1.a", " 1", "1\n", "+1", "1" * 10,
                                  "٣", None, 1, "1." * 16 + "1"])
def test_other_texts_are_no_versions(text):
    with pytest.raises(ValueError):
        Version(text)


@pytest.mark.parametrize("text, inside, outside", [
    ("*", ["0", "99-9"], []),
    ("1.2-1", ["1.2-1", "1.2.0-1"], ["1.2", "1.2-2"]),
    (">=1.2,<2", ["1.2", "1.99-7"], ["1.1-9", "2", "2-1"]),
    (">1, <=1-3", ["1-1", "1-3"], ["1", "1-4"]),
    ("=3", ["3"], ["3-1"])])
def test_ranges_hold_the_versions_between_their_bounds(text, inside, outside):
    versions = Range(text)
    assert all(Version(v) in versions for v in inside) and not any(Version(v) in versions for v in outside)


@pytest.mark.parametrize("text", ["", ">=", "~1", "1,", ",", ">=1,,<2", "=>1", None, "1 2", "*,1", ">=1," * 400 + "1"])
def test_other_texts_are_no_ranges(text):
    with pytest.raises(ValueError):
        Range(text)
