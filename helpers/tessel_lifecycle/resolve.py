"""From a software specification to the content of an image."""

import graphlib

from tessel_lifecycle.content import Choice, Content, relation_problems
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.solver_facts import Ban, Demand, Offer
from tessel_lifecycle.spec import check_available
from tessel_lifecycle.version import Range

# The sources of components, by what stays the longest: what several need has the first one's.
_LASTING = ("BASE_IMAGE", "ADD_ON", "HARDWARE_SUPPORT", "COMPONENT", "SOLUTION")


def resolve(spec, catalogue):
    """What an image for the specification holds, taken from the catalogue. @throws ImageError"""
    check_available(spec, catalogue)
    return _Resolver(spec, catalogue).content()


class _Resolver:
    """Lays base image, add-on, hardware support and the client's exact versions over each other, in this order. What
    solutions and the client leave open is solved on top of them, all together.

    `_versions`, `_sources` and `_parties` tell of each component so far which version is in and who asked for it.
    """

    def __init__(self, spec, catalogue):
        self._spec, self._catalogue = spec, catalogue
        self._content, self._versions, self._sources, self._parties = Content(), {}, {}, {}
        self._removed, self._wishes = {}, []

    def content(self):
        self._base_image()
        self._add_on()
        self._hardware_support()
        self._components()
        for name in sorted(self._spec.solutions):
            self._wish_solution(name, self._spec.solutions[name])
        self._choose(self._solve())
        self._check_packages()
        return self._content

    def _put(self, name, version, source, party):
        self._versions[name], self._sources[name], self._parties[name] = version, source, party

    def _check_relations(self, error, *args):
        """Checks the components so far; one that is replaced later need not be described."""
        units = self._catalogue.components
        problems = relation_problems(self._versions, [units[key] for key in self._versions.items() if key in units])
        if problems:
            raise ImageError(error, *args, detail="; ".join(problems))

    def _base_image(self):
        base = self._content.base_image = self._catalogue.base_images[self._spec.base_image]
        for name, version in base.components.items():
            self._put(name, version, "BASE_IMAGE", f"Base Image {base.version}")
        self._check_relations("BaseimageValidationError")

    def _add_on(self):
        wanted, base = self._spec.add_on, self._content.base_image
        if not wanted:
            return
        add_on = self._content.add_on = self._catalogue.add_ons[wanted.name, wanted.version]
        party = f"Addon {add_on.name} {add_on.version}"
        if base.version not in add_on.base_images:
            raise ImageError("AddonBaseImageMismatchError", add_on.name, base.version)
        for name in add_on.removed_components:
            if self._versions.pop(name, None) is None:
                raise ImageError("AddonValidationError", add_on.name, detail=f"removes {name}, which is not there")
            self._removed[name] = party
        for name, version in add_on.components.items():
            if name in self._versions and version < self._versions[name]:
                raise ImageError("AddonValidationError", add_on.name, detail=f"downgrades {name}")
            self._put(name, version, "ADD_ON", party)
        self._check_relations("AddonValidationError", add_on.name)

    def _hardware_support(self):
        if len(self._spec.hardware_support) > 1:
            raise ImageError("MultipleManifestError")
        base = self._content.base_image.version
        for manager, wanted in self._spec.hardware_support.items():
            fitting = [m for m in self._catalogue.manifests_of(manager, wanted) if base in m.base_images]
            if not fitting:
                raise ImageError("ManifestBaseImageMismatchError", manager, wanted.package, wanted.version, base)
            if len(fitting) > 1:
                raise ImageError("ManifestConflictError", *sorted(m.name for m in fitting)[:2])
            self._content.hardware_support = fitting
            for name, version in fitting[0].components.items():
                if name not in self._versions or version > self._versions[name]:
                    party = f"Hardware Support Package {wanted.package} {wanted.version}"
                    self._put(name, version, "HARDWARE_SUPPORT", party)

    def _components(self):
        downgraded, party = [], "Software Specification"
        for name, version in sorted(self._spec.components.items()):
            newest = version or self._catalogue.versions(name)[0].version
            if name in self._versions and newest < self._versions[name]:
                downgraded.append(f"{name}({self._versions[name]} to {newest})")
            elif not version:
                self._wishes.append(Demand(party, name, Range("*")))
            elif version == self._versions.get(name):
                self._parties[name] = party
            else:
                self._put(name, version, "COMPONENT", party)
        if downgraded:
            raise ImageError("ComponentDowngradeError", ", ".join(downgraded))

    def _pins(self):
        """Demands for what is in so far. It can rise where a solution names it, or the client without a version."""
        wished = {wish.name for wish in self._wishes if not self._spec.components.get(wish.name)}
        return [Demand(self._parties[name], name, Range(f"{'>=' if name in wished else '='}{version}"), pin=version)
                for name, version in self._versions.items()]

    def _wish_solution(self, name, wanted):
        solution = self._catalogue.solutions[name, wanted.version]
        components = sorted(wanted.components or solution.components)
        party = f"Solution {name} {wanted.version}"
        self._wishes += [Demand(party, component, solution.components[component], name) for component in components
                         if component in solution.components]
        self._content.solutions[name] = solution, components

    def _solve(self):
        """The versions of everything that is in, by name."""
        from tessel_lifecycle.solver import Solver
        units, pins = self._catalogue.components, self._pins()
        offer = Offer(units, (key for key in self._versions.items() if key not in units))
        for name in sorted(self._content.solutions):
            self._check_solution(name, offer, pins)
        bans = [Ban(party, name) for name, party in self._removed.items()
                if name not in {demand.name for demand in pins + self._wishes}]
        solver = Solver(offer, [*bans, *pins, *self._wishes])
        versions = solver.best()
        if versions is None:
            raise self._refusal(solver.conflict(), offer)
        return versions

    def _check_solution(self, solution, offer, pins):
        """Checks that there is a version of each of a solution's components that is not lower than what is in."""
        wishes = {wish.name: wish for wish in self._wishes if wish.solution == solution}
        missing = [name for name in self._content.solutions[solution][1]
                   if name not in wishes or not self._candidates(wishes[name], offer, pins)]
        if missing:
            facts = [fact for fact in [*wishes.values(), *pins] if fact.name in missing and fact.name in wishes]
            raise self._error(facts, offer, "SolutionComponentNotFound", ", ".join(missing), solution)

    def _candidates(self, wish, offer, pins):
        """The versions, newest first, that a solution's wish leaves beside what is in."""
        least = [pin.range for pin in pins if pin.name == wish.name]
        versions = offer.versions(wish.name)[slice(*offer.span(wish.name, wish.range))]
        return [version for version in reversed(versions) if (wish.name, version) in self._catalogue.components
                and all(version in range_ for range_ in least)]

    def _refusal(self, conflict, offer):
        """What to tell of facts that cannot be together: a solution's matter if a solution has part in it."""
        wishes = [fact for fact in conflict if isinstance(fact, Demand) and fact.solution]
        if not wishes:
            return self._error(conflict, offer, "ComponentValidationError")
        solution = min(wish.solution for wish in wishes)
        first, *more = [wish for wish in wishes if wish.solution == solution]
        if more:
            components = ", ".join(self._content.solutions[solution][1])
            return self._error(conflict, offer, "IncompatibleSolutionCompsError", components, solution)
        versions = ", ".join(str(version) for version in self._candidates(first, offer, self._pins()))
        return self._error(conflict, offer, "IncompatibleSolutionComponentError", first.name, solution, versions)

    @staticmethod
    def _error(facts, offer, name, *args):
        from tessel_lifecycle.solver_notes import explained
        notes = explained(facts, offer)
        return ImageError(name, *args, detail=" ".join(note.text for note in notes), notes=notes)

    def _choose(self, versions):
        """Takes the descriptions of the components that are in."""
        units = {}
        for key in sorted(versions.items()):
            if key not in self._catalogue.components:
                raise ImageError("MissingComponentError", detail="{}({})".format(*key))
            units[key[0]] = self._catalogue.components[key]
        named = self._named(versions)
        sources = self._all_sources(units, named)
        self._content.components = {name: Choice(unit, sources[name], name not in named)
                                    for name, unit in units.items()}

    def _named(self, versions):
        """The sources of the components that somebody named."""
        named = {wish.name: "SOLUTION" for wish in self._wishes}
        named |= dict.fromkeys((name for name in named if name in self._spec.components), "COMPONENT")
        return named | {name: self._sources[name] for name, version in self._versions.items()
                        if version == versions[name]}

    @staticmethod
    def _all_sources(units, named):
        """Adds the sources of those that others need: that of the one which stays the longest."""
        needed_by = {name: set() for name in units}
        for unit in units.values():
            for relation in unit.depends:
                needed_by[relation.name].add(unit.name)
        sources = {}
        for name in graphlib.TopologicalSorter(needed_by).static_order():
            sources[name] = named.get(name) or min((sources[other] for other in needed_by[name]), key=_LASTING.index)
        return sources

    def _check_packages(self):
        """Takes the descriptions of the packages and checks that they can be installed together."""
        content, references = self._content, list(self._content.base_image.paxs)
        for choice in content.components.values():
            references += choice.component.paxs
        missing = sorted({f"{r.name}({r.version})" for r in references if r.key not in self._catalogue.paxs})
        if missing:
            raise ImageError("MissingPaxError", ", ".join(missing))
        for reference in references:
            descriptor = self._catalogue.paxs[reference.key].descriptor
            if content.descriptors.setdefault(reference.name, descriptor).version != reference.version:
                raise ImageError("ComponentValidationError", detail=f"two versions of PAX {reference.name}")
        problems = content.problems()
        if problems:
            raise ImageError("ComponentValidationError", detail="; ".join(problems))
