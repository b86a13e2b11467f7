"""Random small worlds, a depot and a specification each, and what comes of them when every content is tried."""

import graphlib
import itertools
import random
import unittest.mock

from depot_maker import add_on, base_image, component, solution
from tessel_lifecycle.catalogue import KINDS, Catalogue
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.resolve import resolve
from tessel_lifecycle.solver import Solver
from tessel_lifecycle.solver_facts import Ban, Cycle, Demand
from tessel_lifecycle.spec import SoftwareSpec
from tessel_lifecycle.version import Range, Version

NAMES = "abcde"
VERSIONS = "1", "1.0-1", "2", "10"  # four different ones, though not to those who compare texts or forget releases
RANGES = "*", "*", "1", "<2", ">=1-1", ">1", "<=2.0", "=2", ">1,<10", ">=2"


def compare(seed):
    """Whether a world has a content. The resolver must find the best one, or a smallest set of facts against it."""
    world, conflicts = World(seed), []

    def found_conflict(solver):
        conflicts.append(find_conflict(solver))
        return conflicts[0]

    find_conflict = Solver.conflict
    with unittest.mock.patch.object(Solver, "conflict", found_conflict):
        try:
            found = resolve(world.spec, world.catalogue).versions()
        except ImageError as error:
            found = None
            assert error.notes or not conflicts, (seed, error)
    assert found == world.best(), seed
    for facts in conflicts:
        assert not world.can_be(facts), seed
        assert all(world.can_be([other for other in facts if other is not fact]) for fact in facts), seed
    return found is not None


class World:
    """`catalogue` and `spec` as the resolver takes them, and the best content, name -> version, by trying them all."""

    def __init__(self, seed):
        self._random = random.Random(seed)
        self._busy = self._random.random()
        self.units = {(name, Version(version)): KINDS["components"](component(
            name, version, depends=self._relations(0.4), conflicts=self._relations(0.2))[1])
            for name in NAMES for version in VERSIONS if self._chance(0.9)}
        self.base = self._sound_units(0.1)
        self.added = self._sound_units(0.05, self.base)
        self.removed = [name for name in self.base if self._chance(0.03)]
        self.components = {name: self._random.choice([None, None, version]) for name, version in
                           self._some_units(0.1).items()}
        self.solutions = [{name: self._random.choice(RANGES) for name in NAMES if self._chance(0.4)}
                          for _ in range(self._random.randrange(4))]

    def _chance(self, share):
        return self._random.random() < share

    def _relations(self, share):
        return {name: self._random.choice(RANGES) for name in NAMES if self._chance(share * self._busy)}

    def _some_units(self, share):
        return {name: version for name, version in self._random.sample(sorted(self.units), len(self.units))
                if self._chance(share)}

    def _sound_units(self, share, below=()):
        """Units that go together in most worlds: else there would be little to solve."""
        for _ in range(5):
            units = self._some_units(share)
            if self._is_sound({**dict(below), **units}):
                return units
        return units if self._chance(0.1) else {}

    @property
    def catalogue(self):
        made = Catalogue()
        parts = [base_image("8", {name: version.text for name, version in self.base.items()}), add_on(
            "oem", components={name: version.text for name, version in self.added.items()},
            removed_components=self.removed)]
        parts += [solution(f"s{number}", components) for number, components in enumerate(self.solutions)]
        for kind, document in parts:
            made.add(KINDS[kind](document))
        for unit in self.units.values():
            made.add(unit)
        return made

    @property
    def spec(self):
        return SoftwareSpec({
            "base_image": {"version": "8"}, "add_on": {"name": "oem", "version": "1-1"},
            "components": {name: {"version": version.text} if version else {}
                           for name, version in self.components.items()},
            "solutions": {f"s{number}": {"version": "1-1"} for number in range(len(self.solutions))}})

    def best(self):
        """None when no content fulfils the specification."""
        pins = self._pins()
        if pins is None:
            return None
        wished = {name for wishes in self.solutions for name in wishes}
        fixed = {name: version for name, version in pins.items() if name not in wished | set(self.components)}
        return max((content for content in self.contents(fixed) if self._is_wanted(content, pins)),
                   key=self._key, default=None)

    def _pins(self):
        """What base image, add-on and exact versions lead to; None when these are at odds."""
        pins = dict(self.base)
        if not self._is_sound(pins):
            return None
        for name in self.removed:
            del pins[name]
        for layer in (self.added, {name: version for name, version in self.components.items() if version}):
            if any(version < pins[name] for name, version in layer.items() if name in pins):
                return None
            pins |= layer
            if layer is self.added and not self._is_sound(pins):
                return None
        return pins

    def contents(self, fixed=()):
        """All contents that there could be, but for those in which versions differ from fixed ones."""
        choices = [[fixed[name]] if name in fixed else
                   [None, *(version for other, version in self.units if other == name)] for name in NAMES]
        for versions in itertools.product(*choices):
            yield {name: version for name, version in zip(NAMES, versions) if version}

    def _is_wanted(self, content, pins):
        wished = {name for wishes in self.solutions for name in wishes} | set(self.components)
        for name, version in pins.items():
            can_rise = name in wished and not self.components.get(name)
            if name not in content or content[name] < version or (content[name] > version and not can_rise):
                return False
        if not wished <= set(content) or set(self.removed) & (set(content) - wished - set(pins)):
            return False
        return (all(content[name] in Range(text) for wishes in self.solutions for name, text in wishes.items())
                and self._is_sound(content) and set(self._ordered(content)) == set(content))

    def _is_sound(self, content):
        units = [self.units[key] for key in content.items()]
        needs = all(r.name in content and content[r.name] in r.range for unit in units for r in unit.depends)
        clashes = any(r.name in content and content[r.name] in r.range for unit in units for r in unit.conflicts)
        try:
            graphlib.TopologicalSorter({unit.name: [r.name for r in unit.depends] for unit in units}).prepare()
        except graphlib.CycleError:
            return False
        return needs and not clashes

    def _ordered(self, content):
        """The names in the order in which they count; what nobody needs is not among them."""
        named = {name for wishes in self.solutions for name in wishes} | {*self.components, *self.base, *self.added}
        layer, order = sorted(named & set(content)), []
        while layer:
            order += layer
            layer = sorted({r.name for name in layer for r in self.units[name, content[name]].depends} - set(order))
        return order

    def _key(self, content):
        return [content[name] for name in self._ordered(content)]

    def can_be(self, facts):
        """Whether some content fulfils facts of the solver, whatever else the units say."""
        return any(all(_holds(fact, content) for fact in facts) for content in self.contents())


def _holds(fact, content):
    if isinstance(fact, Ban):
        return fact.name not in content
    if isinstance(fact, Demand):
        return fact.name in content and content[fact.name] in fact.range
    if isinstance(fact, Cycle):
        return not all(content.get(name) in versions for name, versions, _ in fact.edges)
    other = content.get(fact.relation.name)
    meets = other is not None and other in fact.relation.range
    return content.get(fact.name) not in fact.versions or meets == (fact.kind == "depends")
