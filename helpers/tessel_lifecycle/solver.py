"""Which versions of components go together: what libsolv finds, made the best that there is.

What is best is exact. Contents are compared name by name: first the components that somebody demands, in the order of
their names; then those that these need, in that order; then those that these need, and so on. The first name at which
two contents differ tells: the one with the newer version is better. What nothing needs is not in.
"""

import graphlib

from tessel_lifecycle.solver_facts import Ban, Cycle, Demand, Relations
from tessel_lifecycle.solver_pool import Pool


class Solver:
    """Finds the content that fulfils facts, Demands and Bans, and all relations of the offer."""

    def __init__(self, offer, facts):
        self._offer, self._facts, self._names, self._cycles = offer, facts, _demanded(facts), []
        self._pool = Pool(offer, _domains(offer, facts))
        self._add_reachable()
        self._jobs = [self._pool.install(name) for name in self._names]

    def best(self):
        """The best content, name -> version; None when there is none.

        libsolv prefers new versions by rules of thumb. What it finds is a witness; then it is asked for anything
        better at all, until there is nothing.
        """
        best, better = None, self._content([])
        while better is not None:
            best, question = better, self._pool.better_than(better, self._order(better))
            better = self._content([question]) if question else None
        return best and {name: self._offer.versions(name)[rank] for name, rank in best.items()}

    def conflict(self):
        """Once there was no content: facts that cannot be together, none of which can be left out."""
        cyclic = {name for cycle in self._cycles for name, _, _ in cycle.edges}
        facts = self._facts_about(self._pool.suspects() | cyclic)
        if feasible(self._offer, facts):
            facts = self._facts_about(None)
        return minimal(facts, lambda some: feasible(self._offer, some))

    def _facts_about(self, names):
        """All facts about some components, or all; those first that are the last to be doubted."""
        facts = [fact for fact in self._facts if names is None or fact.name in names]
        grouped = {}
        for name in sorted(self._seen if names is None else names):
            for rank, version in enumerate(self._offer.versions(name)):
                for kind in ("depends", "conflicts"):
                    for relation in self._offer.relations(kind, name, rank):
                        if names is None or relation.name in names:
                            key = name, kind, relation.name, relation.range.text
                            grouped.setdefault(key, Relations(name, [], kind, relation)).versions.append(version)
        pins = [fact for fact in facts if isinstance(fact, Ban) or fact.pin]
        wishes = sorted((fact for fact in facts if fact not in pins), key=lambda fact: fact.solution or "")
        return [*pins, *grouped.values(), *self._cycles, *wishes]

    def _add_reachable(self):
        waiting, self._seen = list(self._names), set(self._names)
        while waiting:
            name = waiting.pop()
            for rank in self._pool.ranks(name):
                needs = self._offer.relations("depends", name, rank)
                self._pool.add(name, rank, needs, self._offer.relations("conflicts", name, rank))
                fresh = {need.name for need in needs} - self._seen
                self._seen |= fresh
                waiting += sorted(fresh)

    def _content(self, more):
        """Ranks by name that fulfil everything, without what is not needed; None if there are none."""
        while True:
            ranks = self._pool.solve([*self._jobs, *more])
            if ranks is None:
                return None
            content = {name: ranks[name] for name in self._order(ranks)}
            cycle = self._cycle(content)
            if cycle is None:
                return content
            self._cycles.append(cycle)
            self._jobs.append(self._pool.forbid(cycle))

    def _order(self, ranks):
        """The names that are needed, in the order in which they count."""
        layer, seen = self._names, set(self._names)
        while layer:
            yield from layer
            layer = sorted({need.name for name in layer for need in self._needs(name, ranks[name])} - seen)
            seen.update(layer)

    def _needs(self, name, rank):
        return self._offer.relations("depends", name, rank)

    def _cycle(self, ranks):
        graph = {name: [need.name for need in self._needs(name, rank)] for name, rank in ranks.items()}
        try:
            graphlib.TopologicalSorter(graph).prepare()
        except graphlib.CycleError as error:
            names = error.args[1]  # each is needed by the next; the last is the first again
            return Cycle([(name, self._versions_that_need(name, other), other)
                          for other, name in zip(names, names[1:])])
        return None

    def _versions_that_need(self, name, other):
        return [version for rank, version in enumerate(self._offer.versions(name))
                if any(need.name == other for need in self._needs(name, rank))]


def feasible(offer, facts):
    """Whether there is a content for facts of all kinds, without any relations beside them."""
    relations, names = {}, set(_demanded(facts))
    for fact in facts:
        if isinstance(fact, Relations):
            names |= {fact.name, fact.relation.name}
            for version in fact.versions:
                relations.setdefault((fact.kind, fact.name, version), []).append(fact.relation)
    pool = Pool(offer, _domains(offer, facts))
    for name in sorted(names):
        for rank in pool.ranks(name):
            key = name, offer.versions(name)[rank]
            pool.add(name, rank, relations.get(("depends", *key), ()), relations.get(("conflicts", *key), ()))
    jobs = [pool.install(name) for name in _demanded(facts)]
    jobs += [pool.forbid(fact) for fact in facts if isinstance(fact, Cycle)]
    return pool.solve(jobs) is not None


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
    return among([], [], facts) if facts else []


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
