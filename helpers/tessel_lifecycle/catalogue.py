"""Everything that depots describe, together."""

from tessel_lifecycle.descriptor import Pax
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.metadata import AddOn, BaseImage, Component, Manifest, ReleaseUnit, Solution
from tessel_lifecycle.version import Range

KINDS = {kind.folder: kind for kind in (BaseImage, AddOn, Component, Solution, Manifest, Pax)}


class Catalogue:
    """Everything that the depots in use, and perhaps the host's own image, describe."""

    def __init__(self):
        self.base_images, self.add_ons, self.solutions = {}, {}, {}
        self.manifests, self.components, self.paxs = {}, {}, {}
        self._by_name, self._indexed = {}, 0

    def add(self, unit):
        """Takes a unit of a depot. A PAX that was told before is taken from the first depot, and from this one, too, if
        it has the same file."""
        known = getattr(self, unit.folder).setdefault(unit.key, unit)
        if known is unit:
            return
        if isinstance(unit, Pax):
            if (known.size, known.sha256) == (unit.size, unit.sha256):
                known.depots = (*known.depots, *(depot for depot in unit.depots if depot not in known.depots))
            return
        if known.is_told_as(unit):
            return
        if isinstance(unit, ReleaseUnit):
            raise ImageError("ReleaseUnitConflictError", unit.label)
        raise ImageError("ComponentFormatError", detail=f"different descriptions of {unit.folder} {unit.label}")

    def add_all(self, other):
        """Takes the units of another depot's catalogue. @throws ImageError when the two contradict each other"""
        for unit in other.units():
            self.add(unit)

    def add_missing(self, other):
        """Takes from another catalogue what this one does not have."""
        for unit in other.units():
            getattr(self, unit.folder).setdefault(unit.key, unit)

    def units(self):
        """All units, kind by kind."""
        for folder in KINDS:
            yield from getattr(self, folder).values()

    def versions(self, component, allowed=Range("*")):
        """The components of a name in a range of versions, newest first."""
        if self._indexed != len(self.components):
            self._by_name, self._indexed = {}, len(self.components)
            for known in self.components.values():
                self._by_name.setdefault(known.name, []).append(known)
        return sorted((c for c in self._by_name.get(component, ()) if c.version in allowed),
                      key=lambda c: c.version, reverse=True)

    def manifests_of(self, manager, wanted):
        """The manifests of a hardware support package: of `wanted`'s package and version."""
        return [m for m in self.manifests.values()
                if (m.manager, m.package, m.version) == (manager, wanted.package, wanted.version)]
