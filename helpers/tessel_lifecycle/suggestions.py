"""What depots have instead of something that they do not have, for those who are told so."""

import bisect
import difflib

from tessel_lifecycle.errors import Note

_MOST = 5  # versions or names told


def base_image(catalogue, wanted):
    """The versions of the base image that are the nearest."""
    return [Note("BaseImageVersionsKnown", nearest(catalogue.base_images, wanted))]


def add_on(catalogue, name, wanted):
    """The nearest versions of an add-on, or names like it."""
    return _unit("Addon", catalogue.add_ons, name, wanted)


def solution(catalogue, name, wanted):
    """The nearest versions of a solution, or names like it."""
    return _unit("Solution", catalogue.solutions, name, wanted)


def component(catalogue, name, wanted):
    """The nearest versions of a component, or names like it."""
    return _unit("Component", catalogue.components, name, wanted)


def hardware_support(catalogue):
    """The hardware support packages."""
    known = sorted({f"{m.manager} {m.package} {m.version}" for m in catalogue.manifests.values()})
    return [Note("HardwareSupportKnown", _listed(known[:_MOST * 2]))]


def names_like(name, known):
    """The names that are most like one, or some of them where none is."""
    return _listed(difflib.get_close_matches(name, known, _MOST, 0.4) or sorted(known)[:_MOST * 2])


def _unit(kind, units, name, wanted):
    versions = [version for known, version in units if known == name]
    if versions:
        return [Note(kind + "VersionsKnown", name, nearest(versions, wanted))]
    return [Note(kind + "NamesKnown", name, names_like(name, {known for known, _ in units}))]


def nearest(versions, wanted=None):
    """Some versions in a text: those next to the wanted one, or the newest."""
    ordered = sorted(set(versions))
    place = bisect.bisect(ordered, wanted) if wanted else len(ordered)
    first = max(0, min(place - _MOST // 2, len(ordered) - _MOST))
    return _listed(version.text for version in reversed(ordered[first:first + _MOST]))


def _listed(words):
    return ", ".join(words) or "(none)"
