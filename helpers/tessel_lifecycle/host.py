"""What this host is and admits: its hardware, and the least acceptance level of a PAX."""

from tessel_lifecycle import files, paths, platform_file
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.metadata import ACCEPTANCE_LEVELS

_DMI = "/sys/class/dmi/id/"


def least_acceptance_level():
    """`acceptance_level` of the host's preferences; without one everything is admitted. @throws ImageError"""
    try:
        level = platform_file.read(paths.PREFERENCES).get("acceptance_level", ACCEPTANCE_LEVELS[-1]).upper()
    except (OSError, ValueError) as error:
        raise ImageError("AcceptanceGetError", detail=error) from error
    if level not in ACCEPTANCE_LEVELS:
        raise ImageError("AcceptanceGetError", detail=f"unknown level {ascii(level)[1:-1]}")
    return level


def _dmi(name):
    try:
        return files.read_bounded(_DMI + name, 4096).decode(errors="replace").strip()
    except (OSError, ValueError):
        return ""


def check_admitted(descriptors):
    """Raises ImageError when one of these PAXs is below the host's acceptance level or made for other hardware."""
    least = ACCEPTANCE_LEVELS.index(least_acceptance_level())
    refused = [d.label for d in descriptors if ACCEPTANCE_LEVELS.index(d.acceptance_level) > least]
    if refused:
        raise ImageError("AcceptanceConfigError", detail=", ".join(refused))
    vendor, model = _dmi("sys_vendor"), _dmi("product_name")
    refused = [d.label for d in descriptors if d.hardware_platforms
               and not any(v == vendor and m in ("", model) for v, m in d.hardware_platforms)]
    if refused:
        raise ImageError("PaxHwPlatformError", detail=", ".join(refused))
