"""Putting into effect what packages set of the host at boot: kernel parameters, modules, temporary files, devices.

systemd's own programs do it. A parameter gets the value that it has after a boot: what else the host sets counts, too.
"""

import glob
import os
import re

from tessel_lifecycle import files, service_manager

# What parameters were before; gone with a boot, as the values are.
BEFORE = "/run/tessel/sysctl-before-activation.conf"

_SYSCTL, _MODULES, _TMPFILES, _UDEV = "lib/sysctl.d/", "lib/modules-load.d/", "lib/tmpfiles.d/", "lib/udev/rules.d/"
_MOST_FILE, _MOST_VALUES = 1 << 20, 1 << 20
_GLOB = re.compile(r"[*?\[]")


def load(linked):
    """Puts the settings of these files into effect. @throws ManagerError"""
    def places(folder):
        return sorted(one.place for one in linked if one.path.startswith(folder) and one.is_in_place)
    modules, parameters, temporary = places(_MODULES), places(_SYSCTL), places(_TMPFILES)
    if modules:  # first: they bring parameters
        service_manager.run_outside("/lib/systemd/systemd-modules-load", *modules)
    prefixes = sorted({_GLOB.split(key)[0].rstrip("/") for key in _keys(parameters)} - {""})
    if prefixes:
        service_manager.run_outside("/lib/systemd/systemd-sysctl", *("--prefix=/" + prefix for prefix in prefixes))
    if temporary:
        service_manager.run_outside("systemd-tmpfiles", "--create", *temporary)
    if any(one.path.startswith(_UDEV) for one in linked) and os.path.exists("/run/udev/control"):
        service_manager.run_outside("udevadm", "control", "--reload")


def remember(root, linked):
    """Keeps the values of the parameters that these files, below a bank's root, are about to set. @throws OSError"""
    keys = _keys(os.path.join(root, one.path) for one in linked if one.path.startswith(_SYSCTL))
    values = {}
    for key in keys:
        for path in glob.glob("/proc/sys/" + key):
            try:
                values[path.removeprefix("/proc/sys/")] = files.read_bounded(path, 4096).decode().strip()
            except (OSError, ValueError):
                pass  # some can only be written
    lines = "".join(f"-{key} = {value}\n" for key, value in values.items() if "\n" not in value)
    files.remove(BEFORE)
    if lines:
        os.makedirs(os.path.dirname(BEFORE), mode=0o755, exist_ok=True)
        files.replace(BEFORE, lines.encode()[:_MOST_VALUES])


def restore():
    """Gives the parameters their remembered values again, if there are any. @throws ManagerError"""
    if os.path.exists(BEFORE):
        service_manager.run_outside("/lib/systemd/systemd-sysctl", BEFORE)
        files.remove(BEFORE)


def _keys(paths):
    """The parameters, as paths below /proc/sys, that files of sysctl.d(5) name."""
    found = set()
    for path in paths:
        for line in files.read_bounded(os.path.realpath(path), _MOST_FILE).decode(errors="replace").splitlines():
            key = line.partition("=")[0].strip().lstrip("-").strip()
            if key and key[0] not in "#;" and ".." not in key.split("/"):
                found.add(_as_path(key))
    return found


def _as_path(key):
    """Whichever of '.' and '/' comes first separates; the other is a part of a name."""
    separator = next((c for c in key if c in "./"), "/")
    return key if separator == "/" else key.translate(str.maketrans("./", "/."))
