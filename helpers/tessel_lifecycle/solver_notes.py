"""Facts that cannot be together, in words for those who asked for them."""

from tessel_lifecycle.errors import Note
from tessel_lifecycle.solver_facts import Ban, Cycle, Demand, Relations
from tessel_lifecycle.suggestions import nearest

_MOST = 10      # notes
_MOST_TOLD = 3  # versions, or ranges, before they are summed up


def explained(facts, offer):
    """Notes that tell who wants what, who has what, and what that needs and does not go with."""
    demands = [fact for fact in facts if isinstance(fact, Demand)]
    told = _Explanation(offer, demands)
    relations = [told.relation(group) for group in _chained(_grouped(facts), demands)]
    notes = [told.wish(demand) for demand in demands if demand.pin is None]
    notes += [told.pin(demand) for demand in demands if demand.pin is not None and demand.name not in told.told]
    notes += relations
    notes += [Note("ComponentRemoved", fact.party, fact.name) for fact in facts if isinstance(fact, Ban)]
    notes += [Note("ComponentsInCircle", ", ".join(told.versions(name, versions) for name, versions, _ in fact.edges))
              for fact in facts if isinstance(fact, Cycle)]
    if len(notes) > _MOST:
        notes[_MOST - 1:] = [Note("ReasonsLeftOut", len(notes) - _MOST + 1)]
    return notes


def _grouped(facts):
    """The relations of one component with another, kept apart while they are few: else they are summed up."""
    groups = {}
    for fact in facts:
        if isinstance(fact, Relations):
            groups.setdefault((fact.name, fact.kind, fact.relation.name), []).append(fact)
    for group in groups.values():
        yield from [group] if len(group) >= _MOST_TOLD else [[fact] for fact in group]


def _chained(groups, demands):
    """Relations in the order in which a reader follows them: from what is demanded to what that needs."""
    left, names, ordered = list(groups), [demand.name for demand in demands if demand.pin is None], []
    names += [demand.name for demand in demands if demand.pin is not None]
    for name in names:
        for group in [group for group in left if group[0].name == name]:
            left.remove(group)
            ordered.append(group)
            names.append(group[0].relation.name)
    return ordered + left


class _Explanation:
    """Words for single facts. `told` are the names of the components whose pins have been told with a relation."""

    def __init__(self, offer, demands):
        self._offer, self._demands, self.told = offer, demands, set()
        self._pins = {demand.name: demand for demand in demands if demand.pin is not None and demand.is_exact}

    def wish(self, demand):
        known = self._offer.versions(demand.name)
        if any(version in demand.range for version in known):
            return Note("ComponentWanted", demand.party, demand.name, _words([demand.range]))
        return Note("ComponentWantedUnknown", demand.party, demand.name, _words([demand.range]), nearest(known))

    def pin(self, demand):
        return Note("ComponentPinned" if demand.is_exact else "ComponentKept", demand.party, demand.name, demand.pin)

    def relation(self, group):
        needs, target = group[0].kind == "depends", group[0].relation.name
        ranges, known = [fact.relation.range for fact in group], self._offer.versions(target)
        told = [self.versions(group[0].name, [version for fact in group for version in fact.versions]),
                target, _words(ranges)]
        pin = self._pins.get(target)
        if needs and not any(version in range_ for version in known for range_ in ranges):
            return Note("ComponentNeedsUnknown", *told, nearest(known))
        if pin is None:
            return Note("ComponentNeeds" if needs else "ComponentClashes", *told)
        self.told.add(target)
        return Note("ComponentNeedsPinned" if needs else "ComponentClashesPinned", *told, pin.party, pin.pin)

    def versions(self, name, versions):
        """A component with those of its versions that the demands leave."""
        ranges = [demand.range for demand in self._demands if demand.name == name]
        left = sorted(version for version in versions if all(version in range_ for range_ in ranges)) or versions
        if len(left) > _MOST_TOLD:
            return f"{name} {left[0]} to {left[-1]}"
        return f"{name} {', '.join(version.text for version in reversed(left))}"


def _words(ranges):
    texts = sorted({"in any version" if range_.text == "*" else range_.text for range_ in ranges})
    return " or ".join(texts[:_MOST_TOLD] + (["another"] if len(texts) > _MOST_TOLD else []))
