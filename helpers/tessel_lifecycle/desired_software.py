"""The inline commands for the desired software specification and its parts.

Those that only read load nothing that checks: what is stored was checked when it came.
"""

import sys

from tessel_lifecycle import paths
from tessel_lifecycle.desired import MOST_DOCUMENT, DesiredState
from tessel_lifecycle.document import compact
from tessel_lifecycle.errors import BAD_ARGUMENT, INTERNAL, NOT_FOUND, CommandError, ImageError, Note

_SOFTWARE = "com.tessel.ryx.host_settings.software."


def get(_):
    """The desired specification."""
    return compact(_spec(_desired()))


def set_spec(_):
    """Replaces the desired specification by the one on standard input, if the registered depots have its parts."""
    from tessel_lifecycle.registered_depots import RegisteredDepots
    from tessel_lifecycle.spec import parse_spec
    desired = _desired()
    try:
        spec = parse_spec(sys.stdin.buffer.read(MOST_DOCUMENT))
    except ImageError as error:
        raise CommandError(1, error) from error
    RegisteredDepots(desired).check(spec)
    with desired.locked():
        desired.set_spec({"components": {}} | spec.document)
    return ""


def get_base_image(_):
    """The desired base image's version."""
    return _spec(_desired())["base_image"]["version"]


def set_base_image(options):
    """Changes the desired base image; begins a specification where there is none."""
    from tessel_lifecycle.version import Version
    wanted = {"version": _argument(Version, options["values"][0], BAD_ARGUMENT, "version.form").text}
    _edit(lambda document: document.update(base_image=wanted), first={"components": {}})
    return ""


def get_component(options):
    """The desired version of a component, empty for the newest."""
    return _component(_spec(_desired()), options["values"][0]).get("version") or ""


def set_component(options):
    """Adds a component to the desired specification, or changes its version."""
    from tessel_lifecycle.document import name
    from tessel_lifecycle.version import Version
    component = _argument(name, options["values"][0], INTERNAL, "component.form")
    version = _argument(Version, options["values"][1], INTERNAL, "version.form").text
    _edit(lambda document: document.update(
        components=(document.get("components") or {}) | {component: {"version": version}}))
    return ""


def delete_component(options):
    """Removes a component from the desired specification."""
    desired = _desired()
    with desired.locked():
        document = _spec(desired)
        _component(document, options["values"][0])
        del document["components"][options["values"][0]]
        desired.set_spec(document)
    return ""


def _desired():
    return DesiredState(paths.DESIRED)


def _argument(kind, value, exit_code, form):
    try:
        return kind(value)
    except ValueError as error:
        raise CommandError(exit_code, error, [Note(_SOFTWARE + form, f"{value:.80}")]) from error


def _spec(desired):
    document = desired.spec()
    if document is None:
        raise CommandError(NOT_FOUND, "there is no desired software specification", [Note(_SOFTWARE + "unset")])
    return document


def _component(document, component):
    components = document.get("components") or {}
    if component not in components:
        listed = ", ".join(sorted(components)[:20]) or "(none)"
        raise CommandError(NOT_FOUND, f"component {component} is not in the specification",
                           [Note(_SOFTWARE + "component.unlisted", component, listed)])
    return components[component]


def _edit(change, first=None):
    """Changes the stored specification, or `first` where there is none, and checks the outcome against the depots,
    which are asked before the specification is locked."""
    from tessel_lifecycle.registered_depots import RegisteredDepots
    from tessel_lifecycle.spec import SoftwareSpec
    desired = _desired()
    registered = RegisteredDepots(desired)
    with desired.locked():
        document = _spec(desired) if first is None else desired.spec() or first
        change(document)
        registered.check(SoftwareSpec(document))
        desired.set_spec(document)
