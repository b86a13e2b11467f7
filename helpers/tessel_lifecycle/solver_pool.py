"""Components as libsolv knows them, and what it is asked.

A version is its rank there: so versions compare as they do everywhere else in this system, libsolv's own order of
versions being another. What begins with '!' is no component but stands for a question.
"""

import solv

_NAMED = solv.Job.SOLVER_INSTALL | solv.Job.SOLVER_SOLVABLE_NAME
_PROVIDED = solv.Job.SOLVER_INSTALL | solv.Job.SOLVER_SOLVABLE_PROVIDES


class Pool:
    """Takes versions of components with their relations, then solves jobs.

    @param domains  name -> (first, end), the ranks that a component may have where these are not all
    """

    def __init__(self, offer, domains):
        self._offer, self._domains = offer, domains
        self._pool = solv.Pool()
        self._pool.set_flag(solv.Pool.POOL_FLAG_FORBIDSELFCONFLICTS, 1)
        self._repository = self._pool.add_repo("depots")
        self._components, self._dependencies, self._names = {}, {}, {}
        self._auxiliaries, self._failed = 0, None

    def ranks(self, name):
        """The ranks that a component may have."""
        return range(*self._domains.get(name, (0, len(self._offer.versions(name)))))

    def add(self, name, rank, needs, clashes):
        """Adds a version of a component."""
        solvable = self._solvable(name, rank)
        self._components[solvable.id] = name, rank
        solvable.add_provides(self._versions(name, rank, rank + 1))
        spans = {}
        for need in needs:  # two of one component are one for libsolv, which would have to search for what fulfils both
            first, end = self._offer.span(need.name, need.range)
            least, most = spans.get(need.name, (first, end))
            spans[need.name] = max(first, least), min(end, most)
        for target, (first, end) in spans.items():
            solvable.add_requires(self._versions(target, first, end))
        for clash in clashes:
            first, end = self._offer.span(clash.name, clash.range)
            if first < end:
                solvable.add_conflicts(self._versions(clash.name, first, end))

    def install(self, name):
        """A job: the component must be in."""
        return self._pool.Job(_NAMED, self._pool.str2id(name))

    def forbid(self, cycle):
        """A job: one component of the cycle is not in, or not in a version by which it belongs to the cycle."""
        ways = self._fresh_name()
        for name, versions, _ in cycle.edges:
            way = self._auxiliary(ways)
            for rank, version in enumerate(self._offer.versions(name)):
                if version in versions:
                    way.add_conflicts(self._versions(name, rank, rank + 1))
        return self._pool.Job(_PROVIDED, ways)

    def better_than(self, ranks, order):
        """A job: the same up to some name of the order, and there a newer version. None when there is none newer."""
        ways, same, asked = self._fresh_name(), [], False
        for name in order:
            rank, end = ranks[name], self.ranks(name).stop
            if rank + 1 < end:
                so_far, asked = self._fresh_name(), True
                self._auxiliary(so_far, same)
                self._auxiliary(ways, [so_far, self._versions(name, rank + 1, end)])
                same = [so_far]
            same.append(self._versions(name, rank, rank + 1))
        return self._pool.Job(_PROVIDED, ways) if asked else None

    def solve(self, jobs):
        """A solution of the jobs, as ranks by name, or None. It may hold more than is needed."""
        self._pool.createwhatprovides()
        solver = self._pool.Solver()
        solver.set_flag(solver.SOLVER_FLAG_IGNORE_RECOMMENDED, 1)
        problems = solver.solve(jobs)
        if problems:
            self._failed = solver, problems[0]  # a problem does not keep its solver
            return None
        return dict(self._components[number] for number in solver.raw_decisions(1) if number in self._components)

    def suspects(self):
        """The names of components that have part in why the last solve found nothing."""
        names = set()
        for rule in self._failed[1].findallproblemrules():
            for info in rule.allinfos():
                names |= {self._components.get(solvable.id, (None,))[0]
                          for solvable in (info.solvable, info.othersolvable) if solvable}
                names.add(self._names.get(info.dep_id))
        return names - {None}

    def _solvable(self, name, rank):
        solvable = self._repository.add_solvable()
        solvable.nameid, solvable.archid = self._pool.str2id(name), solv.ARCH_ALL
        solvable.evrid = self._pool.str2id(str(rank))
        return solvable

    def _auxiliary(self, provides, requires=()):
        self._auxiliaries += 1
        solvable = self._solvable(f"!{self._auxiliaries}", 0)
        solvable.add_provides(provides)
        for dependency in requires:
            solvable.add_requires(dependency)
        return solvable

    def _fresh_name(self):
        self._auxiliaries += 1
        return self._pool.str2id(f"!{self._auxiliaries}")

    def _versions(self, name, first, end):
        """libsolv's number of a dependency on the ranks of a component from `first` up to `end`."""
        key = name, first, end
        if key not in self._dependencies:
            number = self._dependencies[key] = self._number(*key)
            self._names[number] = name
        return self._dependencies[key]

    def _number(self, name, first, end):
        named = self._pool.str2id(name)
        if first >= end:
            return self._pool.rel2id(named, self._pool.str2id("none"), solv.REL_EQ)
        if end - first == 1:
            return self._pool.rel2id(named, self._pool.str2id(str(first)), solv.REL_EQ)
        least = self._pool.rel2id(named, self._pool.str2id(str(first)), solv.REL_GT | solv.REL_EQ)
        most = self._pool.rel2id(named, self._pool.str2id(str(end - 1)), solv.REL_LT | solv.REL_EQ)
        if end == len(self._offer.versions(name)):
            return least if first else named
        return self._pool.rel2id(least, most, solv.REL_WITH) if first else most
