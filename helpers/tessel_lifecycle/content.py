"""What an image holds: chosen by resolving a specification, or read back from a host's image."""

import graphlib

from tessel_lifecycle.catalogue import Catalogue
from tessel_lifecycle.payload import content_problem


class Choice:
    """A component of an image and who asked for it: BASE_IMAGE, ADD_ON, HARDWARE_SUPPORT, SOLUTION or COMPONENT.

    Nobody named one that is `pulled_in`: it is there because others need it, and has the source of one of these.
    """

    def __init__(self, component, source, pulled_in=False):
        self.component, self.source, self.pulled_in = component, source, pulled_in

    @property
    def version(self):
        return self.component.version


class Content:
    """The release units, components and PAXs of one image. `descriptors` maps a PAX's name to its descriptor.

    Of where it comes from it knows the `specification`, a document, None where that was not recorded, and what
    others took the place of: `overridden`, a Catalogue.
    """

    def __init__(self):
        self.specification, self.overridden = None, Catalogue()
        self.base_image = self.add_on = None
        self.hardware_support = []   # manifests
        self.solutions = {}          # name -> (solution, names of its components that are in the image)
        self.components = {}         # name -> Choice
        self.descriptors = {}

    def versions(self):
        """Component name -> version."""
        return {name: choice.version for name, choice in self.components.items()}

    def outline(self):
        """What two contents have to have alike to be the same: what is installed, why, and each package's content."""
        return (self.base_image and self.base_image.key, self.add_on and self.add_on.key,
                sorted(manifest.key for manifest in self.hardware_support),
                sorted((name, solution.version, sorted(parts)) for name, (solution, parts) in self.solutions.items()),
                sorted((name, choice.version, choice.source, choice.pulled_in)
                       for name, choice in self.components.items()),
                sorted(descriptor.identity for descriptor in self.descriptors.values()))

    def problems(self):
        """Why the components and PAXs cannot be installed together, as texts; empty when they can."""
        units = {name: choice.component for name, choice in self.components.items()}
        found = relation_problems(self.versions(), units.values())
        found += relation_problems({n: d.version for n, d in self.descriptors.items()}, self.descriptors.values())
        clash = content_problem(self.descriptors.values())
        return found + [clash] if clash else found

    def install_order(self):
        """The descriptors, each behind those that it depends on."""
        graph = {name: sorted(r.name for r in d.depends) for name, d in sorted(self.descriptors.items())}
        return [self.descriptors[name] for name in graphlib.TopologicalSorter(graph).static_order()]


def relation_problems(versions, units):
    """What `units` need or do not bear, and `versions` (name -> version) does not have or has."""
    found, graph = [], {}
    for unit in units:
        graph[unit.name] = [relation.name for relation in unit.depends]
        found += [f"{unit.label} needs {relation.name} {relation.range}" for relation in unit.depends
                  if relation.name not in versions or versions[relation.name] not in relation.range]
        found += [f"{unit.label} does not go with {relation.name} {relation.range}"
                  for relation in getattr(unit, "conflicts", ())
                  if relation.name in versions and versions[relation.name] in relation.range]
    try:
        graphlib.TopologicalSorter(graph).prepare()
    except graphlib.CycleError as error:
        found.append("depend on each other: " + ", ".join(error.args[1][1:]))
    return found
