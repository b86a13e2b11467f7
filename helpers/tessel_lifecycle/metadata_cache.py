"""Metadata files that were brought from depots, kept by their digests so that none is brought twice.

    image/metadata/SHA256            a whole file
    image/metadata/SHA256.part       what came of one, as far as a process got in the time that it had
    image/metadata/SHA256.PID.N.part the same while process PID goes on with it, or did when it was killed

Nothing here is locked: a file takes its name when it is whole, and is compared with that name whenever it is used; a
part is taken by renaming it.
"""

import contextlib
import hashlib
import itertools
import os
import re
import time

from tessel_lifecycle import files
from tessel_lifecycle.fetch import ContentError, FetchError

MOST_KEPT = 512 << 20        # bytes of all files; those that were used last stay
LONGEST_KEPT = 30 * 86400    # seconds without being used
LONGEST_PART = 86400         # seconds in which a part has to be taken up again
MOST_IN_MEMORY = 16 << 20    # bytes of a file for which there is no disk
_SPARE = 16 << 20            # bytes to leave free on the file system
_OURS = re.compile(r"([0-9a-f]{64})(?:\.([0-9]+)\.[0-9]+)?(\.part)?")

_number = itertools.count()


class MetadataCache:
    """The kept files in a folder, which is made when it is needed; without one, everything is kept in memory."""

    def __init__(self, folder=None):
        self._folder = folder

    def open(self, source, name, size, sha256, on_bytes=lambda count: None):
        """A file of a depot's source, open for reading, with the announced size and digest.

        `on_bytes` hears of bytes as they come, or of all when they are here. @throws FetchError
        """
        if source.is_local:
            return _opened_there(source, name, size, sha256, on_bytes)
        counted = 0

        def count(number):
            nonlocal counted
            counted += number
            on_bytes(number)

        try:
            if self._folder is not None:
                return self._kept(source, name, size, sha256, count)
        except OSError as error:
            on_bytes(-counted)
            if size > MOST_IN_MEMORY:
                raise FetchError(source.url(name), error) from error
        if size > MOST_IN_MEMORY:
            raise FetchError(source.url(name), "too large to be kept in memory")
        file = open(os.memfd_create("metadata"), "w+b")
        file.write(source.read(name, size, sha256, on_bytes))
        file.flush()
        return file

    def _kept(self, source, name, size, sha256, on_bytes):
        path = os.path.join(self._folder, sha256)
        with contextlib.suppress(OSError):
            if _is(file := files.open_regular(path), size, sha256):
                os.utime(path)
                on_bytes(size)
                return file
            file.close()
        if not os.path.isdir(self._folder):
            files.make_directories(os.path.dirname(self._folder))
            with contextlib.suppress(FileExistsError):
                os.mkdir(self._folder, 0o700)
        status = os.statvfs(self._folder)
        if status.f_bavail * status.f_frsize < size + _SPARE:
            raise OSError(28, f"{size} bytes are needed", self._folder)
        return self._brought(source, name, path, size, sha256, on_bytes)

    def _brought(self, source, name, path, size, sha256, on_bytes):
        own = f"{path}.{os.getpid()}.{next(_number)}"
        self._take_part(sha256, own + ".part")
        try:
            source.download(name, own, size, sha256, on_bytes)
            file = files.open_regular(own)
            os.rename(own, path)
        finally:
            with contextlib.suppress(OSError):
                os.rename(own + ".part", path + ".part")
        self.tidy()
        return file

    def _take_part(self, sha256, own):
        """Takes what came of a file, if there is a part at which no other process is."""
        for name in os.listdir(self._folder):
            found = _OURS.fullmatch(name)
            if found and found[1] == sha256 and found[3] and not (found[2] and os.path.exists(f"/proc/{found[2]}")):
                with contextlib.suppress(OSError):
                    os.rename(os.path.join(self._folder, name), own)
                    return

    def tidy(self):
        """Removes what has not been used for long, and what is too much, beginning with what was not used for the
        longest time."""
        found, now, kept = [], time.time(), 0
        with contextlib.suppress(OSError), os.scandir(self._folder) as entries:
            for entry in entries:
                if name := _OURS.fullmatch(entry.name):
                    status = entry.stat(follow_symlinks=False)
                    found.append((now - status.st_mtime, status.st_size, entry.path, name[0] == name[1]))
        for age, size, path, is_whole in sorted(found):
            kept += size
            if kept > MOST_KEPT or age > (LONGEST_KEPT if is_whole else LONGEST_PART):
                files.remove(path)


def _is(file, size, sha256):
    """Whether an open file has this size and digest."""
    return (os.fstat(file.fileno()).st_size == size
            and hashlib.file_digest(file, "sha256").hexdigest() == sha256)


def _opened_there(source, name, size, sha256, on_bytes):
    file = source.open(name)
    try:
        if not _is(file, size, sha256):
            raise ContentError(source.url(name), "not the announced size and digest")
    except OSError as error:
        raise FetchError(source.url(name), error) from error
    on_bytes(size)
    return file
