"""The software specification: what a host should run."""

from tessel_lifecycle.document import FieldError, Fields, list_of, map_of, name, parse, shallow
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.version import Version

MOST_SPEC = 16 << 20


class _AddOn:
    def __init__(self, value):
        fields = Fields(value, "add_on")
        self.name, self.version = fields.take("name", name), fields.take("version", Version)


class _Solution:
    def __init__(self, value):
        fields = Fields(value, "solution")
        self.version, self.components = fields.take("version", Version), fields.take("components", list_of(name), [])


class _HardwareSupport:
    def __init__(self, value):
        fields = Fields(value, "hardware_support")
        self.package, self.version = fields.take("package", name), fields.take("version", Version)


class SoftwareSpec:
    """A specification as a client gave it. A component without a version means the newest in the depots."""

    def __init__(self, document):
        fields = Fields(document, "software specification")
        base_image = fields.take("base_image", lambda value: Fields(value, "base_image"))
        self.document = document
        self.base_image = base_image.take("version", Version)
        self.add_on = fields.take("add_on", _AddOn, None)
        self.components = fields.take("components", map_of(
            lambda value: Fields(value, "component").take("version", Version, None)), {})
        self.solutions = fields.take("solutions", map_of(_Solution), {})
        self.hardware_support = fields.take("hardware_support", map_of(_HardwareSupport), {})


def parse_spec(data):
    """The specification in a JSON text. @throws ImageError"""
    try:
        return SoftwareSpec(shallow(parse(data)))
    except FieldError as error:
        raise ImageError("SoftwareSpecFormatError", error.field, detail=error) from error
    except ValueError as error:
        raise ImageError("SoftwareSpecFormatError", "", detail=error) from error


def check_available(spec, catalogue):
    """Raises ImageError for the first thing that a specification names and a catalogue does not have."""
    from tessel_lifecycle import suggestions
    if spec.base_image not in catalogue.base_images:
        raise ImageError("BaseImageNotFound", spec.base_image, notes=suggestions.base_image(catalogue, spec.base_image))
    if spec.add_on and (spec.add_on.name, spec.add_on.version) not in catalogue.add_ons:
        name, version = spec.add_on.name, spec.add_on.version
        raise ImageError("AddonNotFound", name, version, notes=suggestions.add_on(catalogue, name, version))
    for manager, wanted in spec.hardware_support.items():
        if not catalogue.manifests_of(manager, wanted):
            raise ImageError("HardwareSupportPackageNotFound", manager, wanted.package, wanted.version,
                             notes=suggestions.hardware_support(catalogue))
    for solution, wanted in spec.solutions.items():
        if (solution, wanted.version) not in catalogue.solutions:
            raise ImageError("SolutionNotFound", solution, wanted.version,
                             notes=suggestions.solution(catalogue, solution, wanted.version))
    for component, version in spec.components.items():
        if version and (component, version) not in catalogue.components or not catalogue.versions(component):
            raise ImageError("ComponentNotFoundError", f"{component}({version})" if version else component,
                             notes=suggestions.component(catalogue, component, version))
