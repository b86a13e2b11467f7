"""Comparing the host's image with a specification: the result of a scan."""

from tessel_lifecycle.errors import INCOMPATIBILITIES
from tessel_lifecycle.plain_json import map_value, message, optional, structure
from tessel_lifecycle.task import utc_now

COMPLIANT, NON_COMPLIANT, INCOMPATIBLE, UNAVAILABLE = "COMPLIANT", "NON_COMPLIANT", "INCOMPATIBLE", "UNAVAILABLE"

_SERVICE = "ryx.kestrel_daemon.software."


class Part:
    """A version and the content of its packages, as far as that is known: of equal versions it can differ."""

    def __init__(self, version, packages=None):
        self.version, self.packages = version, packages

    def __eq__(self, other):
        known = isinstance(other, Part) and None not in (self.packages, other.packages)
        return isinstance(other, Part) and self.version == other.version and (
            not known or self.packages == other.packages)


class Parts:
    """The parts of an image that are compared: single ones, or name -> what can be compared.

    A partial one lacks what a specification does not name itself.
    """

    def __init__(self, base_image, add_on, components, solutions, hardware_support, partial=False):
        self.base_image, self.add_on, self.components = base_image, add_on, components
        self.solutions, self.hardware_support, self.partial = solutions, hardware_support, partial


def of_content(content, damaged=()):
    """The parts of an image's content, installed or resolved.

    @param damaged  names of installed packages that are not what they were, and so the same as nothing that is wanted
    """
    def part(unit):
        return Part(unit.version, sorted(
            "damaged" if reference.name in damaged else content.descriptors[reference.name].identity
            for reference in unit.paxs if reference.name in content.descriptors))
    return Parts(content.base_image and part(content.base_image), content.add_on and content.add_on.key,
                 {name: part(choice.component) for name, choice in content.components.items()},
                 {name: solution.version for name, (solution, _) in content.solutions.items()},
                 {m.manager: (m.package, m.version) for m in content.hardware_support})


def of_spec(spec):
    """The parts that a specification names itself, for when it does not resolve."""
    return Parts(Part(spec.base_image), spec.add_on and (spec.add_on.name, spec.add_on.version),
                 {name: Part(version) for name, version in spec.components.items() if version},
                 {name: wanted.version for name, wanted in spec.solutions.items()},
                 {manager: (wanted.package, wanted.version) for manager, wanted in spec.hardware_support.items()},
                 partial=True)


def is_incompatibility(error):
    """Whether an ImageError says that host and specification cannot come together, rather than that the scan failed."""
    return error.name in INCOMPATIBILITIES


def scan_result(installed, wanted, download_size=0, errors=(), warnings=(), space=(None, None), reboot_pending=()):
    """The result of a scan in plain JSON.

    @param installed  the host's Parts, or None when its image cannot be read
    @param errors  the ImageErrors that keep the host from coming to what is wanted
    @param warnings  Notes
    @param space  bytes that an apply needs and that are free for it
    @param reboot_pending  names of packages
    """
    seen = []
    present = installed or Parts(None, None, {}, {}, {})

    def compare(kind, current, target, show=lambda version: version.text):
        seen.append(UNAVAILABLE if installed is None else COMPLIANT if current == target else NON_COMPLIANT)
        return structure(_SERVICE + kind, status=seen[-1], current=optional(current and show(current)),
                         target=optional(target and show(target)))

    def compare_all(kind, current, target, *show):
        names = target.keys() if wanted.partial else current.keys() | target.keys()
        return map_value({name: compare(kind, current.get(name), target.get(name), *show) for name in names})

    parts = {
        "base_image": compare("base_image_compliance", present.base_image, wanted.base_image, _part),
        "add_on": optional(compare("add_on_compliance", present.add_on, wanted.add_on, _add_on)
                           if present.add_on or wanted.add_on else None),
        "components": compare_all("component_compliance", present.components, wanted.components, _part),
        "solutions": compare_all("solution_compliance", present.solutions, wanted.solutions),
        "hardware_support": compare_all("hardware_support_compliance", present.hardware_support,
                                        wanted.hardware_support, _hardware_support)}
    status = next((verdict for verdict in (UNAVAILABLE, NON_COMPLIANT) if verdict in seen), COMPLIANT)
    if errors and status != UNAVAILABLE:
        status = INCOMPATIBLE
    return structure(_SERVICE + "scan_result", status=status, scan_time=utc_now(), **parts,
                     download_size=download_size,
                     messages=[message(told) for error in errors for told in error.messages()],
                     warnings=_warnings(warnings), required_space=optional(space[0]), free_space=optional(space[1]),
                     reboot_pending=optional(list(reboot_pending) or None))


def _part(part):
    return part.version.text


def _add_on(key):
    return structure("ryx.host_settings.add_on_spec", name=key[0], version=key[1].text)


def _hardware_support(key):
    return structure("ryx.host_settings.hardware_support_spec", package=key[0], version=key[1].text)


def apply_result(changed, before, after, downloaded, activation=None, warnings=()):
    """The result of an apply: what changed from the content `before` to `after`.

    @param activation  a structure made by `activation`, or None when nothing changed
    @param warnings  Notes
    """
    old, new = before.versions(), after.versions()
    changes = {name: structure(_SERVICE + "component_change", previous=optional(name in old and old[name].text or None),
                               current=optional(name in new and new[name].text or None))
               for name in old.keys() | new.keys() if old.get(name) != new.get(name)}
    return structure(_SERVICE + "apply_result", changed=changed,
                     base_image=optional(after.base_image and after.base_image.version.text),
                     components=map_value(changes), downloaded=downloaded, activation=optional(activation),
                     warnings=_warnings(warnings))


def activation(status, reboot_pending=(), notes=()):
    """How an image became part of the host; `reboot_pending` are names of packages."""
    return structure(_SERVICE + "activation", status=status, reboot_pending=list(reboot_pending),
                     messages=[message(note) for note in notes])


def _warnings(notes):
    return optional([message(note) for note in notes] or None)


def stage_result(paxs, downloaded, warnings=()):
    """The result of staging; `warnings` are Notes."""
    return structure(_SERVICE + "stage_result", paxs=paxs, downloaded=downloaded, warnings=_warnings(warnings))
