"""Which versions of components go together: what libsolv finds, made the best that there is.

What is best is exact. Contents are compared name by name: first the components that somebody demands, in the order of
their names; then those that these need, in that order; then those that these need, and so on. The first name at which
two contents differ tells: the one with the newer version is better. What nothing needs is not in.
"""

import graphlib

from tessel_lifecycle.solver_facts import Ban, Cycle, Demand, Relations
from tessel_lifecycle.solver_pool import Pool

_MOST_RELATIONS = 3000  # among which those are looked for that explain a conflict


class Solver:
    """Finds the content that fulfils `facts`, Demands and Bans, and all relations of the offer.

    `reachable` are the names of what is demanded, and of all that can be needed for it.
    """

    def __init__(self, offer, facts):
        self._offer, self.facts, self._names, self._cycles = offer, facts, _demanded(facts), []
        self._pool = Pool(offer, _domains(offer, facts))
        self._add_reachable()
        self._jobs = [self._pool.install(name) for name in self._names]

    def best(self):
        """The best content, name -> version; None when there is none.

        libsolv prefers new versions by rules of thumb. What it finds is a witness; then it is asked for anything
        better at all, until there is nothing.
        """
        best, better = None, self.best_guess()
        while better is not None:
            best, question = better, self._pool.better_than(better, self._order(better))
            better = self._content([question]) if question else None
        return best and {name: self._offer.versions(name)[rank] for name, rank in best.items()}

    def best_guess(self):
        """Some content, as ranks by name; None when there is none."""
        return self._content([])

    def conflict(self):
        """Once there was no content: facts that cannot be together, none of which can be left out.

        First the demands are found, then the relations on account of which they cannot be fulfilled; these are left
        out where they are too many to follow.
        """
        last = self._smallest_without_content()
        relations = last.relations(last.suspects())
        if feasible(self._offer, last.facts + relations):
            relations = last.relations(last.reachable)
        if len(relations) > _MOST_RELATIONS:
            return last.facts
        return last.facts + minimal(relations, lambda some: feasible(self._offer, last.facts + some))

    def _smallest_without_content(self):
        """A Solver with as few facts as lead to no content; of solutions only where nothing else does."""
        suspects = self.suspects()
        self._pool = None  # with many components, one at a time is large enough
        facts = sorted(self.facts, key=lambda fact: getattr(fact, "solution", None) or "")
        suspicious = [fact for fact in facts if fact.name in suspects]
        if not self._without_content(suspicious):
            suspicious = facts
        return self._without_content(minimal(suspicious, lambda some: not self._without_content(some)))

    def _without_content(self, facts):
        """The Solver of some facts that has found no content; None when it finds one."""
        solver = Solver(self._offer, facts)
        return solver if solver.best_guess() is None else None

    def suspects(self):
        """The names of components that have part in there being no content."""
        return self._pool.suspects() | {name for cycle in self._cycles for name, _, _ in cycle.edges}

    def relations(self, names):
        """What is said of some components about each other, the same of several versions together."""
        grouped = {}
        for name in sorted(names):
            for rank, version in enumerate(self._offer.versions(name)):
                for kind in ("depends", "conflicts"):
                    for relation in self._offer.relations(kind, name, rank):
                        if relation.name in names:
                            key = name, kind, relation.name, relation.range.text
                            grouped.setdefault(key, Relations(name, [], kind, relation)).versions.append(version)
        return [*grouped.values(), *self._cycles]

    def _add_reachable(self):
        waiting, self.reachable = list(self._names), set(self._names)
        while waiting:
            name = waiting.pop()
            for rank in self._pool.ranks(name):
                needs = self._offer.relations("depends", name, rank)
                self._pool.add(name, rank, needs, self._offer.relations("conflicts", name, rank))
                fresh = {need.name for need in needs} - self.reachable
                self.reachable |= fresh
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
