"""What takes effect with the next boot: packages that cannot be changed while the host runs.

For each such package that was changed, the file names the content that has been running since the boot. A
package is pending while the image has another; the file of an earlier boot says nothing.

Imported by commands that have to answer fast, so it imports little.
"""

import contextlib
import os

from tessel_lifecycle import files
from tessel_lifecycle.document import compact, parse
from tessel_lifecycle.errors import ImageError

_BOOT = "/run/tessel/boot"  # gone with a boot
_MOST = 4 << 20


def boot_id():
    """What tells this boot from all others (random(4)), the same for the whole host: in a container, a unit that has a
    /proc of its own sees another one there than the rest does."""
    with contextlib.suppress(OSError, ValueError):
        return files.read_bounded(_BOOT, 64).decode()
    with open("/proc/sys/kernel/random/boot_id") as file:
        found = file.read().strip()
    with contextlib.suppress(OSError):
        os.makedirs(os.path.dirname(_BOOT), mode=0o755, exist_ok=True)
        files.replace(_BOOT, found.encode())
    return found


def path_of(banks):
    return banks.path("reboot.json")


def running(banks):
    """Package name -> what has been running since the boot, None if nothing; of packages that were changed since."""
    try:
        document = parse(files.read_bounded(path_of(banks), _MOST))
        return dict(document["packages"]) if document["boot"] == boot_id() else {}
    except (OSError, ValueError, KeyError, TypeError):
        return {}


def write(banks, packages):
    """@throws OSError"""
    if packages:
        files.replace(path_of(banks), compact({"boot": boot_id(), "packages": packages}).encode())
    elif os.path.lexists(path_of(banks)):
        os.unlink(path_of(banks))
        files.sync_directory(banks.directory)


def of_content(content):
    """Package name -> what tells its content from all others."""
    return {descriptor.name: descriptor.identity for descriptor in content.descriptors.values()}


def pending(banks):
    """The names of the packages that wait for a boot. @throws ImageError"""
    kept, bank = running(banks), banks.current()
    return sorted(name for name, since_boot in kept.items() if _present(banks, bank, name) != since_boot)


def _present(banks, bank, name):
    if bank is None or not os.path.exists(banks.path(bank, "descriptors", name + ".json")):
        return None
    from tessel_lifecycle.descriptor import Descriptor
    try:
        return Descriptor(banks.document(bank, "descriptors", name + ".json")).identity
    except ValueError as error:
        raise ImageError("DatabaseFormatError", detail=error) from error
