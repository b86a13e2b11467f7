"""Which versions of components go together: what a SAT solver finds, made the best that there is.

What is best is exact. Contents are compared name by name: first the components that somebody demands, in the order of
their names; then those that these need, in that order; then those that these need, and so on. The first name at which
two contents differ tells: the one with the newer version is better. What nothing needs is not in.
"""

import graphlib

from tessel_lifecycle.solver_facts import Ban, Cycle, Demand, Relations
from tessel_lifecycle.solver_clauses import Clauses

_MOST_RELATIONS = 300  # of which those are looked for that are needed to explain a conflict
_FIRST_ASKED = 64  # components that are looked at together


class Solver:
    """Finds the content that fulfils `facts`, Demands and Bans, and all relations of the offer."""

    def __init__(self, offer, facts):
        self._offer, self._facts, self._domains = offer, facts, _domains(offer, facts)
        self._names, self._cycles = _demanded(facts), []

    def best(self):
        """The best content, name -> version; None when there is none."""
        self._clauses = Clauses(self._offer)
        for fact in self._facts:
            self._clauses.add(self._clauses.state(fact))
        self._describe(self._ends)
        if not self._has_content(self._names):
            return None
        for layer in self._layers(self._names):
            self._raise(layer)
        return {name: self._offer.versions(name)[self._clauses.rank(name)]
                for layer in self._layers(self._names) for name in layer}

    def conflict(self):
        """Once there was no content: facts that cannot be together, none of which can be left out.

        First the demands are found, then the relations on account of which they cannot be fulfilled. Where these are
        too many to follow, there may be some among them that can be left out.
        """
        demands = self._conflicting_demands()
        clauses, relations = Clauses(self._offer), [*self._relations(demands), *self._cycles]
        for demand in demands:
            clauses.add(clauses.state(demand))
        given = {relation: clauses.state(relation) for relation in relations}
        clauses.solve(given.values())
        culprits = clauses.culprits()
        relations = [relation for relation in relations if given[relation] in culprits]
        if len(relations) <= _MOST_RELATIONS:
            relations = minimal(relations, lambda some: clauses.solve(given[fact] for fact in some))
        return demands + relations

    def _conflicting_demands(self):
        """As few facts as lead to no content; of solutions only where nothing else does."""
        self._clauses = Clauses(self._offer)
        given = {fact: self._clauses.state(fact) for fact in self._facts}
        self._describe(self._all_ranks)
        facts = sorted(self._facts, key=lambda fact: getattr(fact, "solution", None) or "")
        return minimal(facts, lambda some: self._has_content(_demanded(some), [given[fact] for fact in some]))

    def _relations(self, facts):
        """What is said about each other of all that can be needed, the same of several versions together."""
        last = Solver(self._offer, facts)
        names, grouped = last._needed(last._ends), {}
        for name in sorted(names):
            for rank, version in enumerate(self._offer.versions(name)):
                for kind in ("depends", "conflicts"):
                    for relation in self._offer.relations(kind, name, rank):
                        if relation.name in names:
                            key = name, kind, relation.name, relation.range.text
                            grouped.setdefault(key, Relations(name, [], kind, relation)).versions.append(version)
        return grouped.values()

    def _all_ranks(self, name):
        return 0, len(self._offer.versions(name))

    def _ends(self, name):
        """The ranks that a component may have, as (first, end)."""
        return self._domains.get(name) or self._all_ranks(name)

    def _needed(self, ends):
        """The names of what is demanded and of all that can be needed for it, each with those that it can need."""
        needed, waiting = {}, list(self._names)
        while waiting:
            name = waiting.pop()
            if name not in needed:
                needed[name] = {need.name for rank in range(*ends(name)) for need in self._needs(name, rank)}
                waiting += sorted(needed[name])
        return needed

    def _describe(self, ends):
        """Says the relations of all that can be needed."""
        needed = self._needed(ends)
        self._can_be_cyclic = _cycle(needed) is not None
        for name in needed:
            for rank in range(*ends(name)):
                for need in self._needs(name, rank):
                    self._clauses.depends(name, rank, need)
                for clash in self._offer.relations("conflicts", name, rank):
                    self._clauses.conflicts(name, rank, clash)

    def _has_content(self, names, assumed=()):
        """Whether there is a content for demanded names, where some literals hold; when not, the last one stays."""
        last = self._clauses.model
        while self._clauses.solve(assumed):
            cycle = self._cycle(names) if self._can_be_cyclic else None
            if cycle is None:
                return True
            self._cycles.append(cycle)
            self._clauses.forbid(cycle)
        self._clauses.model = last
        return False

    def _raise(self, layer):
        """Makes the content found last the best in these names, as those before are fixed already, and fixes them.

        Most are the best from the outset, which one question shows of many names; or else of fewer.
        """
        done, size = 0, _FIRST_ASKED
        while done < len(layer):
            names = layer[done:done + size]
            asked = self._clauses.better((name, self._ends(name)[1]) for name in names)
            if asked and self._has_content(self._names, [asked]):
                size //= 2
                if size == 0:
                    self._raise_one(names[0])
                    size = 1
            else:
                for name in names:
                    self._clauses.fix(name)
                done, size = done + size, size * 2

    def _raise_one(self, name):
        first, end = self._clauses.rank(name), self._ends(name)[1]
        tried = end - 1
        while first + 1 < end:
            if self._has_content(self._names, [self._clauses.at_least(name, tried)]):
                first = self._clauses.rank(name)
            else:
                end = tried
            tried = (first + end) // 2

    def _layers(self, names):
        """The names in the content found last that are needed, in the order in which they count."""
        layer, seen = names, set(names)
        while layer:
            yield layer
            layer = sorted({need.name for name in layer
                            for need in self._needs(name, self._clauses.rank(name))} - seen)
            seen.update(layer)

    def _needs(self, name, rank):
        return self._offer.relations("depends", name, rank)

    def _cycle(self, names):
        """A Cycle in the content found last for demanded names, or None."""
        found = _cycle({name: [need.name for need in self._needs(name, self._clauses.rank(name))]
                        for layer in self._layers(names) for name in layer})
        return found and Cycle([(name, self._versions_that_need(name, other), other)
                                for other, name in zip(found, found[1:])])

    def _versions_that_need(self, name, other):
        return [version for rank, version in enumerate(self._offer.versions(name))
                if any(need.name == other for need in self._needs(name, rank))]


def minimal(facts, is_feasible):
    """Those of some facts that cannot be together, and can as soon as one is left out; earlier ones are preferred.

    Junker, QuickXplain: Preferred Explanations and Relaxations for Over-Constrained Problems (AAAI 2004).
    """
    def among(kept, is_new, doubted):
        if is_new and not is_feasible(kept):
            return []
        if len(doubted) == 1:
            return doubted
        first, second = doubted[:len(doubted) // 2], doubted[len(doubted) // 2:]
        of_second = among(kept + first, first, second)
        return among(kept + of_second, of_second, first) + of_second
    return among([], [], facts) if facts and is_feasible([]) else []


def _demanded(facts):
    return sorted({fact.name for fact in facts if isinstance(fact, Demand)})


def _domains(offer, facts):
    """The ranks that demands and bans leave of each component that they name, as (first, end)."""
    domains = {}
    for fact in facts:
        if isinstance(fact, Ban):
            domains[fact.name] = 0, 0
        elif isinstance(fact, Demand):
            first, end = domains.get(fact.name, (0, len(offer.versions(fact.name))))
            least, most = offer.span(fact.name, fact.range)
            domains[fact.name] = max(first, least), min(end, most)
    return domains


def _cycle(graph):
    """Names of which each is needed by the next, and the last is the first again; None when there is no such circle."""
    try:
        graphlib.TopologicalSorter(graph).prepare()
    except graphlib.CycleError as error:
        return error.args[1]
    return None
