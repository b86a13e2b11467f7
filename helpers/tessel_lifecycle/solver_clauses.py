"""Components as clauses for CryptoMiniSat, and what it is asked.

A variable says that a component is not in, or in a version older than some rank. CryptoMiniSat tries false before true:
thus it tries to have components, and these in their newest versions.
"""

import array
import bisect

import pycryptosat

from tessel_lifecycle.solver_facts import Ban, Cycle, Demand

_ALWAYS = 1


class Clauses:
    """Takes facts and the relations of components, then finds contents.

    A literal is a variable's number, or that with a minus. What has a literal `given` holds where that is true.
    `model` tells of each variable whether it is true in the content that was found last; it can be kept and put back.
    """

    def __init__(self, offer):
        self._offer, self._solver, self._first, self._count = offer, pycryptosat.Solver(), {}, _ALWAYS
        self._waiting, self.model = array.array("i", (_ALWAYS, 0)), None

    def literal(self):
        """A new literal, which nothing is said of yet, other than that it is one thing or the other."""
        self._count += 1
        self.add(self._count, -self._count)
        return self._count

    def add(self, *literals):
        """One of the literals holds."""
        self._waiting.extend(literals)
        self._waiting.append(0)

    def at_least(self, name, rank):
        """The literal for a component's being in, in a version of a rank or a newer one."""
        first = self._first.get(name) or self._declare(name)
        count = len(self._offer.versions(name))
        return -(first + rank) if rank < count else -_ALWAYS

    def depends(self, name, rank, need, given=_ALWAYS):
        """A version of a component depends on another component."""
        first, end = self._offer.span(need.name, need.range)
        other = -given, -self.at_least(name, rank), self.at_least(name, rank + 1)
        self.add(*other, self.at_least(need.name, first) if first < end else -_ALWAYS)
        if end < len(self._offer.versions(need.name)):
            self.add(*other, -self.at_least(need.name, end))

    def conflicts(self, name, rank, clash, given=_ALWAYS):
        """A version of a component does not go with another component."""
        first, end = self._offer.span(clash.name, clash.range)
        if first < end:
            self.add(-given, -self.at_least(name, rank), self.at_least(name, rank + 1),
                     -self.at_least(clash.name, first), self.at_least(clash.name, end))

    def forbid(self, cycle, given=_ALWAYS):
        """One component of the cycle is not in, or not in a version by which it belongs to the cycle."""
        ways = []
        for name, versions, _ in cycle.edges:
            ways.append(self.literal())
            for rank, version in enumerate(self._offer.versions(name)):
                if version in versions:
                    self.add(-ways[-1], -self.at_least(name, rank), self.at_least(name, rank + 1))
        self.add(-given, *ways)

    def state(self, fact):
        """A literal for what a Demand, a Ban, a Cycle or Relations say."""
        given = self.literal()
        if isinstance(fact, Demand):
            first, end = self._offer.span(fact.name, fact.range)
            self._all(given, [self.at_least(fact.name, first) if first < end else -_ALWAYS,
                              -self.at_least(fact.name, end)])
        elif isinstance(fact, Ban):
            self.add(-given, -self.at_least(fact.name, 0))
        elif isinstance(fact, Cycle):
            self.forbid(fact, given)
        else:
            say = self.depends if fact.kind == "depends" else self.conflicts
            for rank, version in enumerate(self._offer.versions(fact.name)):
                if version in fact.versions:
                    say(fact.name, rank, fact.relation, given)
        return given

    def better(self, ends):
        """A literal for: of some components, with the ranks found last, one is newer and those before it no older.

        @param ends  (name, the rank that it stays below) of each; None comes back when none can be newer
        """
        ways, same = [], []
        for name, end in ends:
            rank, so_far = self.rank(name), self.literal()
            if rank + 1 < end:
                ways.append(self.literal())
                self._all(ways[-1], [*same, self.at_least(name, rank + 1)])
            self._all(so_far, [*same, self.at_least(name, rank)])
            same = [so_far]
        asked = self.literal()
        self.add(-asked, *ways)
        return asked if ways else None

    def fix(self, name):
        """The component keeps the rank found last."""
        rank = self.rank(name)
        self.add(self.at_least(name, rank))
        self.add(-self.at_least(name, rank + 1))

    def solve(self, assumed=()):
        """Whether there is a content where some literals hold."""
        self._solver.add_clauses(self._waiting)
        self._waiting = array.array("i", (_ALWAYS, 0))
        found, model = self._solver.solve(list(assumed))
        if found:
            self.model = model
        return found

    def culprits(self):
        """Those of the literals assumed last that cannot hold together."""
        return {-literal for literal in self._solver.get_conflict()}

    def rank(self, name):
        """A component's rank in the content that was found last; -1 when it is not in."""
        first = self._first[name]
        return bisect.bisect_left(self.model, True, first, first + len(self._offer.versions(name))) - first - 1

    def _all(self, literal, others):
        for other in others:
            self.add(-literal, other)

    def _declare(self, name):
        first, count = self._count + 1, max(len(self._offer.versions(name)), 1)
        self._first[name], self._count = first, self._count + count
        for variable in range(first, self._count):
            self.add(-variable, variable + 1)
        if not self._offer.versions(name):
            self.add(first)
        return first
