"""What makes the running bank a part of the host: /opt/tessel, and links in the folders where systemd looks for files.

The links lead through /opt/tessel, and that through `current`: the one rename that switches it changes all of them.
Below /run they go with a boot, after which they are made again. Those whose target lies below /opt/tessel are ours.
"""

import contextlib
import os
import stat

from tessel_lifecycle import paths
from tessel_lifecycle.payload import UNITS

PREFIX = "/opt/tessel"
ROOT = paths.IMAGE + "/current/root"
SETTINGS = ("lib/sysctl.d/", "lib/modules-load.d/", "lib/tmpfiles.d/", "lib/udev/rules.d/")

_SEARCHED = ("/etc/", "/run/", "/usr/local/lib/", "/usr/lib/", "/lib/")  # and in each of them the folder's name
_GENERATED = tuple(f"/run/systemd/{name}/" for name in ("transient", "generator.early", "generator", "generator.late"))


class PrefixTaken(Exception):
    """Something else is where /opt/tessel has to be."""


class Linked:
    """A file of a package that systemd must see: its path below the root, its link's place, whose it is."""

    def __init__(self, file, descriptor):
        self.path, self.descriptor = file.path, descriptor
        self.content = file.target if file.type == "link" else file.sha256
        self.place = "/run/" + file.path.removeprefix("lib/")
        self.target = f"{PREFIX}/{file.path}"

    @property
    def is_unit(self):
        return self.path.startswith(UNITS)

    @property
    def unit(self):
        """The unit's name, or None of what only belongs to one."""
        name = self.path.removeprefix(UNITS)
        return name if self.is_unit and "/" not in name else None

    @property
    def is_in_place(self):
        with contextlib.suppress(OSError):
            return os.readlink(self.place) == self.target
        return False

    def others(self):
        """What the host has under this name itself."""
        name = self.place.removeprefix("/run/")
        found = [folder + name for folder in _SEARCHED]
        if self.is_unit:
            found += [folder + self.path.removeprefix(UNITS) for folder in _GENERATED]
        return [path for path in found if os.path.lexists(path) and not is_ours(path)]


def linked_files(content):
    """All files of a content that systemd must see: path -> Linked."""
    return {file.path: Linked(file, descriptor) for descriptor in content.descriptors.values()
            for file in descriptor.files if file.type != "directory" and file.path.startswith((UNITS, *SETTINGS))}


def is_ours(path):
    """Whether a path is one of our links."""
    with contextlib.suppress(OSError):
        return os.readlink(path).startswith(PREFIX + "/")
    return False


def is_mask(path):
    """Whether an administrator has put nothing in the place of a file: a link to /dev/null, or an empty file."""
    with contextlib.suppress(OSError):
        return os.path.realpath(path) == "/dev/null" or (os.path.isfile(path) and os.path.getsize(path) == 0)
    return False


def clash(linked):
    """Which file of the host keeps one from its place, or None.

    A mask does not, nor does what an administrator has made of a file that is in its place already.
    """
    for path in linked.others():
        if not is_mask(path) and not (path.startswith("/etc/") and linked.is_in_place):
            return path
    return None


def check_prefix():
    """@throws PrefixTaken"""
    if os.path.lexists(PREFIX) and not (os.path.islink(PREFIX) and os.readlink(PREFIX) == ROOT):
        raise PrefixTaken(PREFIX)


def make_prefix():
    """Makes /opt/tessel unless it is there. @throws PrefixTaken, OSError"""
    check_prefix()
    if not os.path.lexists(PREFIX):
        if not os.path.isdir(os.path.dirname(PREFIX)):
            os.mkdir(os.path.dirname(PREFIX))
            os.chmod(os.path.dirname(PREFIX), 0o755)
        os.symlink(ROOT, PREFIX)


def open_way(image, bank):
    """Lets ordinary users to the programs of a bank; what else the folders hold stays closed. @throws OSError"""
    for folder in (os.path.dirname(paths.LIFECYCLE), paths.LIFECYCLE, image.directory, image.path(bank)):
        mode = stat.S_IMODE(os.stat(folder).st_mode)
        if mode & 0o111 != 0o111:
            os.chmod(folder, mode | 0o111)


def present():
    """The places of all our links."""
    found = []
    for folder in (UNITS, *SETTINGS):
        for where, folders, names in os.walk("/run/" + folder.removeprefix("lib/")):
            folders[:] = [name for name in folders if where.count("/") < 5]
            found += [path for name in (*folders, *names) if is_ours(path := os.path.join(where, name))]
    return found


def synchronize(linked):
    """Makes the links of these files and removes all others of ours. Returns whether any changed. @throws OSError"""
    wanted = {one.place: one.target for one in linked}
    changed = False
    for place in present():
        if wanted.get(place) != os.readlink(place):
            os.unlink(place)
            changed = True
            with contextlib.suppress(OSError):  # a folder of drop-ins that has more in it
                if place.count("/") > 4:
                    os.rmdir(os.path.dirname(place))
    for place, target in wanted.items():
        if not os.path.lexists(place):
            _make_folders(os.path.dirname(place))
            os.symlink(target, place)
            changed = True
    return changed


def _make_folders(path):
    if not os.path.isdir(path):
        _make_folders(os.path.dirname(path))
        os.mkdir(path)
        os.chmod(path, 0o755)
