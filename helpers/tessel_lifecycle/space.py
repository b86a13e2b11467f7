"""Whether a change of the image fits on its file system: found out before anything is fetched."""

import contextlib
import os
import stat

from tessel_lifecycle import files, package_store
from tessel_lifecycle.banks import BANKS
from tessel_lifecycle.errors import ImageError, Note

_SPARE = 16 << 20      # bytes that stay free, for records, logs and others
_BLOCK = 4096
_PER_ENTRY = 256       # bytes that a bank's descriptors have for each listed file


class Need:
    """What a change takes, in bytes: first for `downloads`, then for the `files` of a new bank."""

    def __init__(self, downloads=0, files=0):
        self.downloads, self.files = downloads, files

    @property
    def total(self):
        return self.downloads + self.files + _SPARE


def of_downloads(image, paxs):
    """What PAXs of depots take in the stage, less what an earlier download has brought of them."""
    needed = 0
    for offered in paxs:
        needed += offered.size
        with contextlib.suppress(OSError):
            needed -= os.path.getsize(os.path.join(image.stage, offered.sha256 + ".pax.part"))
    return max(needed, 0)


def of_bank(descriptors, written):
    """What a bank takes that has these packages, of which the PayloadFiles `written` are not shared with the other."""
    entries = sum(len(descriptor.files) for descriptor in descriptors)
    folders = {os.path.dirname(file.path) for descriptor in descriptors for file in descriptor.files}
    return (sum(-file.size // _BLOCK * -_BLOCK for file in written) + _BLOCK * (len(folders) + len(descriptors))
            + _PER_ENTRY * entries)


class Room:
    """What is free, and what can be made free for a change.

    `wanted` are digests of packages that the change needs: these are not given up.
    """

    def __init__(self, image, wanted=()):
        self._image, self._wanted = image, set(wanted)

    def free(self):
        """Bytes that are free now."""
        path = self._image.directory
        while not os.path.isdir(path):
            path = os.path.dirname(path)
        status = os.statvfs(path)
        return status.f_bavail * status.f_frsize

    def obtainable(self):
        """Bytes that are free or can be made free."""
        return self.free() + sum(size for size, _ in self._dispensable())

    def check(self, need):
        """Raises ImageError, with both numbers, when a change does not fit whatever is given up for it."""
        if need.total > self.free():
            self._check(need, self.obtainable())

    def check_free(self, need):
        """As `check`, with nothing given up."""
        self._check(need, self.free())

    def _check(self, need, found):
        if need.total > found:
            raise ImageError("InstallationError", notes=[shortage(self._image.directory, need.total, found)])

    def make(self, size):
        """Gives up what it takes, the least valuable first, to have `size` bytes free."""
        if self.free() >= size + _SPARE:
            return
        for _, give_up in self._dispensable():
            give_up()
            if self.free() >= size + _SPARE:
                return

    def _dispensable(self):
        """What can be given up: (bytes, function that removes it), in the order in which it goes."""
        image, current = self._image, self._image.current()
        kept, staged = _packages(image.store), _packages(image.stage)
        mine = package_store.listed(image, current) if current else set()
        either = mine | package_store.listed(image, *BANKS)
        yield from self._files(kept, lambda digest: digest not in either)
        for bank in BANKS:
            if bank != current and os.path.isdir(image.path(bank)):
                yield own_size(image.path(bank)), lambda bank=bank: image.discard(bank)
        yield from self._files(kept, lambda digest: digest in either - mine)
        yield from self._files(staged, lambda digest: True)
        yield from self._files(kept, lambda digest: digest in mine)

    def _files(self, packages, is_meant):
        for path, digest, size in packages:
            if digest not in self._wanted and is_meant(digest):
                yield size, lambda path=path: files.remove(path)


def shortage(directory, needed, obtainable):
    """The Note that tells that a change does not fit."""
    return Note("SpaceShort", needed, directory, obtainable)


def own_size(folder):
    """The bytes that removing a folder frees."""
    freed = 0
    for path, directories, names in os.walk(folder):
        for name in [*directories, *names]:
            with contextlib.suppress(OSError):
                freed += _own_blocks(os.lstat(os.path.join(path, name)))
    return freed


def _packages(folder):
    """Path, digest and size of each file in the stage or among the kept packages; an extract may share it."""
    with contextlib.suppress(OSError), os.scandir(folder) as entries:
        return [(entry.path, package_store.digest(entry.name), _own_blocks(entry.stat(follow_symlinks=False)))
                for entry in entries]
    return []


def _own_blocks(status):
    """The bytes that removing a file frees: of one that has another name elsewhere, none."""
    return status.st_blocks * 512 if status.st_nlink == 1 or stat.S_ISDIR(status.st_mode) else 0
