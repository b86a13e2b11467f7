"""From a software specification to the content of an image."""

from tessel_lifecycle.content import Choice, Content, relation_problems
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.spec import check_available
from tessel_lifecycle.version import Range

MOST_COMBINATIONS = 5000  # tries for one solution before it counts as having no compatible combination


def resolve(spec, catalogue):
    """What an image for the specification holds, taken from the catalogue. @throws ImageError"""
    check_available(spec, catalogue)
    return _Resolver(spec, catalogue).content()


class _Resolver:
    """Lays base image, add-on, hardware support, the client's components and solutions over each other, in this order.

    `_versions` and `_sources` tell of each component so far which version is in and who asked for it.
    """

    def __init__(self, spec, catalogue):
        self._spec, self._catalogue = spec, catalogue
        self._content, self._versions, self._sources = Content(), {}, {}

    def content(self):
        self._base_image()
        self._add_on()
        self._hardware_support()
        self._components()
        for name in sorted(self._spec.solutions):
            self._solution(name, self._spec.solutions[name])
        self._settle()
        return self._content

    def _put(self, name, version, source):
        self._versions[name], self._sources[name] = version, source

    def _known(self):
        """The components so far that are described; one that is replaced later need not be."""
        units = self._catalogue.components
        return [units[key] for key in self._versions.items() if key in units]

    def _check_relations(self, error, *args):
        problems = relation_problems(self._versions, self._known())
        if problems:
            raise ImageError(error, *args, detail="; ".join(problems))

    def _base_image(self):
        base = self._content.base_image = self._catalogue.base_images[self._spec.base_image]
        for name, version in base.components.items():
            self._put(name, version, "BASE_IMAGE")
        self._check_relations("BaseimageValidationError")

    def _add_on(self):
        wanted, base = self._spec.add_on, self._content.base_image
        if not wanted:
            return
        add_on = self._content.add_on = self._catalogue.add_ons[wanted.name, wanted.version]
        if base.version not in add_on.base_images:
            raise ImageError("AddonBaseImageMismatchError", add_on.name, base.version)
        for name in add_on.removed_components:
            if self._versions.pop(name, None) is None:
                raise ImageError("AddonValidationError", add_on.name, detail=f"removes {name}, which is not there")
        for name, version in add_on.components.items():
            if name in self._versions and version < self._versions[name]:
                raise ImageError("AddonValidationError", add_on.name, detail=f"downgrades {name}")
            self._put(name, version, "ADD_ON")
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
                    self._put(name, version, "HARDWARE_SUPPORT")

    def _components(self):
        downgraded = []
        for name, version in sorted(self._spec.components.items()):
            version = version or self._catalogue.versions(name)[0].version
            if name in self._versions and version < self._versions[name]:
                downgraded.append(f"{name}({self._versions[name]} to {version})")
            elif version != self._versions.get(name):
                self._put(name, version, "COMPONENT")
        if downgraded:
            raise ImageError("ComponentDowngradeError", ", ".join(downgraded))

    def _solution(self, name, wanted):
        solution = self._catalogue.solutions[name, wanted.version]
        components = sorted(wanted.components or solution.components)
        candidates = {c: self._candidates(c, solution.components.get(c)) for c in components}
        missing = [c for c in components if not candidates[c]]
        if missing:
            raise ImageError("SolutionComponentNotFound", ", ".join(missing), name)
        for component, choices in candidates.items():
            if not any(self._goes_along(choice, candidates) for choice in choices):
                versions = ", ".join(str(choice.version) for choice in choices)
                raise ImageError("IncompatibleSolutionComponentError", component, name, versions)
        chosen = self._combination(list(candidates.values()))
        if chosen is None:
            raise ImageError("IncompatibleSolutionCompsError", ", ".join(components), name)
        for component in chosen:
            if component.version != self._versions.get(component.name):
                self._put(component.name, component.version, "SOLUTION")
        self._content.solutions[name] = solution, components

    def _candidates(self, name, allowed):
        """What can be taken for a solution's component: not older than what is in, and just what the client chose."""
        if allowed is None:
            return []
        present = self._versions.get(name)
        least = Range("*") if present is None else Range(f"{'=' if name in self._spec.components else '>='}{present}")
        return [c for c in self._catalogue.versions(name, allowed) if c.version in least]

    def _goes_along(self, choice, candidates):
        """Whether a candidate can go with everything that this solution does not choose itself."""
        versions = {n: v for n, v in self._versions.items() if n not in candidates} | {choice.name: choice.version}
        rest = [unit for unit in self._known() if unit.name not in candidates]
        needs = [r for r in choice.depends if r.name not in candidates]
        unmet = [r for r in needs if r.name not in versions or versions[r.name] not in r.range]
        clashes = [r for r in choice.conflicts if r.name in versions and versions[r.name] in r.range]
        clashes += [r for unit in rest for r in unit.conflicts if r.name == choice.name and choice.version in r.range]
        return not unmet and not clashes

    def _combination(self, choices):
        """The first choice of one candidate each, newest first, with which everything goes together; None if none."""
        left = MOST_COMBINATIONS
        indexes = [0] * len(choices)
        replaced = {candidates[0].name for candidates in choices}
        rest = [unit for unit in self._known() if unit.name not in replaced]
        while left:
            left -= 1
            chosen = [candidates[i] for candidates, i in zip(choices, indexes)]
            versions = self._versions | {c.name: c.version for c in chosen}
            if not relation_problems(versions, rest + chosen):
                return chosen
            for place in reversed(range(len(indexes))):
                indexes[place] += 1
                if indexes[place] < len(choices[place]):
                    break
                indexes[place] = 0
            else:
                return None
        return None

    def _settle(self):
        """Takes the descriptions of everything that was chosen and checks that it can be installed together."""
        self._check_relations("ComponentValidationError")
        content, references = self._content, list(self._content.base_image.paxs)
        for key in sorted(self._versions.items()):
            component = self._catalogue.components.get(key)
            if component is None:
                raise ImageError("MissingComponentError", detail="{}({})".format(*key))
            content.components[key[0]] = Choice(component, self._sources[key[0]])
            references += component.paxs
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
