"""Reading a depot's files, several at a time; from a directory as it stands."""

import contextlib
import hashlib
import os

from tessel_lifecycle import files
from tessel_lifecycle.transfers import run

_PIECE = 16 << 20  # bytes copied between two looks at other transfers; a multiple of what file systems share


class FetchError(Exception):
    """A file could not be had; `url` is where it should be."""

    def __init__(self, url, reason):
        super().__init__(f"{url}: {reason}")
        self.url, self.reason = url, reason


class ContentError(FetchError):
    """What came is not what was announced: another size or digest."""


class Refused(OSError):
    """The server will not give the file, and would not if asked again."""


class TlsError(OSError):
    """There is no trusted connection."""


class Patience:
    """How long a source is tried. `attempts` tries in a row without progress end it; before the next try is a pause of
    `pause` seconds, which doubles while there is none. `timeout` is for connecting and for silence, in seconds. Less
    than `slowest` bytes a second, over `limit` seconds or in a whole try, is no progress: what only drips is given up.
    """

    def __init__(self, attempts, timeout, pause, limit, slowest=2 << 10):
        self.attempts, self.timeout, self.pause, self.limit = attempts, timeout, pause, limit
        self.slowest = slowest


INLINE = Patience(attempts=2, timeout=5, pause=0.5, limit=10, slowest=1 << 20)
TASK = Patience(attempts=5, timeout=20, pause=1, limit=60)  # eight may share a link: 16 KiB a second for all
LOCAL = Patience(attempts=1, timeout=0, pause=0, limit=0)   # a directory has no second answer


class Source:
    """A directory with a depot's files; other places derive from it."""

    is_local = True  # a file lies at its `url`, and need not be kept a second time

    def __init__(self, base, patience):
        self.base, self.patience = base.rstrip("/"), patience

    def url(self, name):
        """The place of a file, as messages name it."""
        return f"{self.base}/{name}"

    def open(self, name):
        """A file in this directory, open for reading. @throws FetchError"""
        try:
            return files.open_regular(self.url(name))
        except (OSError, ValueError) as error:
            reason = error if isinstance(error, OSError) else Refused(str(error))
            raise FetchError(self.url(name), reason) from error

    def read(self, name, most, sha256=None, on_bytes=lambda count: None):
        """A file's content of at most `most` bytes, or, with a digest, exactly the content of that size and digest.

        `on_bytes` hears of bytes as they come, and of a negative number when some came in vain. @throws FetchError
        """
        return run([self.reading(name, most, sha256, on_bytes)])[0]

    def download(self, name, path, size, sha256, on_bytes=lambda count: None):
        """Brings a file of known size and digest to `path`, going on from what an earlier call left at `path`.part.

        `on_bytes` hears of what was there already, too. Returns how many bytes came now.
        @throws FetchError; OSError when the file cannot be written
        """
        return run([self.bringing(name, path, size, sha256, on_bytes)])[0]

    def reading(self, name, most, sha256=None, on_bytes=lambda count: None):
        """As `read`, for `transfers.run`."""
        yield from ()
        with self.open(name) as file:
            try:
                content = file.read(most + 1)
            except OSError as error:
                raise FetchError(self.url(name), error) from error
        if len(content) > most:
            raise ContentError(self.url(name), f"larger than {most} bytes")
        if sha256 and (len(content), hashlib.sha256(content).hexdigest()) != (most, sha256):
            raise ContentError(self.url(name), "not the announced size and digest")
        on_bytes(len(content))
        return content

    def bringing(self, name, path, size, sha256, on_bytes=lambda count: None):
        """As `download`, for `transfers.run`."""
        part, copied = path + ".part", 0
        with self.open(name) as source, open(os.open(part, _NEW, 0o600), "wb", buffering=0) as file:
            while copied < size and (count := self._copy(name, source, file, copied, min(_PIECE, size - copied))):
                copied += count
                on_bytes(count)
                yield 0
            is_longer = os.fstat(source.fileno()).st_size > size
        if is_longer or copied < size or files.sha256(part) != sha256:
            on_bytes(-copied)
            files.remove(part)
            raise ContentError(self.url(name), "not the announced size and digest")
        os.rename(part, path)
        return copied

    def _copy(self, name, source, file, offset, most):
        """Copies some bytes, which share their place on the disk where the file system can; returns how many."""
        with contextlib.suppress(OSError):  # not between all file systems
            if copied := os.copy_file_range(source.fileno(), file.fileno(), most, offset, offset):
                return copied
        try:
            data = os.pread(source.fileno(), most, offset)
        except OSError as error:
            raise FetchError(self.url(name), error) from error
        return os.pwrite(file.fileno(), data, offset)


_NEW = os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC
