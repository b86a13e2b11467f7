"""What decides which versions of components go together: what there is, and what somebody demands of it."""


class Demand:
    """Somebody has a component in the image, in a version of `range`.

    `party` says who. `solution` is the name of the solution that demands it, or None. A `pin` is what the image has
    already when wishes are looked at: the least version, or the only one.
    """

    def __init__(self, party, name, range_, solution=None, pin=None):
        self.party, self.name, self.range, self.solution, self.pin = party, name, range_, solution, pin

    @property
    def is_exact(self):
        """Whether a pin allows no other version."""
        return not self.range.text.startswith(">")


class Ban:
    """Somebody keeps a component out of the image."""

    def __init__(self, party, name):
        self.party, self.name = party, name


class Relations:
    """One relation, the same with several versions of a component. `kind` is "depends" or "conflicts"."""

    def __init__(self, name, versions, kind, relation):
        self.name, self.versions, self.kind, self.relation = name, versions, kind, relation


class Cycle:
    """Components that would depend on each other: `edges` are (name, versions that need the next one, its name)."""

    def __init__(self, edges):
        self.edges = edges


class Offer:
    """The versions that there are of each component, oldest first. A version's place among them is its rank.

    @param units  (name, version) -> description, with `depends` and `conflicts`
    @param undescribed  pairs of name and version that are in the image though nothing describes them
    """

    def __init__(self, units, undescribed=()):
        self._units, self._versions, self._spans = units, {}, {}
        for name, version in {**dict.fromkeys(units), **dict.fromkeys(undescribed)}:
            self._versions.setdefault(name, []).append(version)
        for versions in self._versions.values():
            versions.sort()

    def versions(self, name):
        return self._versions.get(name, [])

    def relations(self, kind, name, rank):
        """What the description of a version says: those that it depends on, or those that it conflicts with."""
        key = name, self._versions[name][rank]
        return getattr(self._units[key], kind) if key in self._units else ()

    def span(self, name, range_):
        """The ranks of the versions that are in a range, as (first, end)."""
        key = name, range_.text
        if key not in self._spans:
            self._spans[key] = range_.span(self.versions(name))
        return self._spans[key]
