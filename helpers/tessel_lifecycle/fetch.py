"""Reading a depot's files with resumption, time-outs and a counted number of tries; from a directory as it stands."""

import contextlib
import hashlib
import io
import os
import time

from tessel_lifecycle import files

CHUNK = 1 << 16


class FetchError(Exception):
    """A file could not be had; `url` is where it should be."""

    def __init__(self, url, reason):
        super().__init__(f"{url}: {reason}")
        self.url, self.reason = url, reason


class ContentError(FetchError):
    """What came is not what was announced: another size or digest."""


class Refused(OSError):
    """The server will not give the file, and would not if asked again."""


class Patience:
    """How often a source is tried, and in seconds: the wait for some bytes, the pause between tries, and the limit of
    one try, to which a large file adds its size by `slowest`, in bytes a second: one that only drips is given up."""

    def __init__(self, attempts, timeout, pause, limit, slowest=16 << 10):
        self.attempts, self.timeout, self.pause, self.limit = attempts, timeout, pause, limit
        self.slowest = slowest


INLINE = Patience(attempts=2, timeout=5, pause=0.5, limit=10, slowest=1 << 20)
TASK = Patience(attempts=5, timeout=20, pause=1, limit=60)
LOCAL = Patience(attempts=1, timeout=0, pause=0, limit=3600)  # a directory has no second answer


class Source:
    """A directory with a depot's files; other places derive from it."""

    is_local = True  # what is here need not be kept a second time

    def __init__(self, base, patience):
        self.base, self.patience = base.rstrip("/"), patience

    def url(self, name):
        """The place of a file, as messages name it."""
        return f"{self.base}/{name}"

    def open(self, name, offset, deadline):
        """Opens a file at an offset, or at 0 where that cannot be had: (stream with read1, offset).

        `deadline` is the monotonic time at which reading gives up. @throws OSError
        """
        try:
            stream = files.open_regular(self.url(name))
        except (OSError, ValueError) as error:
            raise Refused(str(error)) from error
        stream.seek(offset)
        return stream, offset

    def read(self, name, most, sha256=None, on_bytes=lambda count: None):
        """A file's content of at most `most` bytes, or, with a digest, exactly the content of that size and digest.

        `on_bytes` as for `download`. @throws FetchError
        """
        def attempt():
            content = io.BytesIO()
            try:
                stream, _ = self.open(name, 0, self._deadline(most))
                with stream:
                    _copy(stream, content, most, on_bytes)
                if content.tell() > most:
                    raise ContentError(self.url(name), f"larger than {most} bytes")
                if sha256 and (content.tell(), hashlib.sha256(content.getvalue()).hexdigest()) != (most, sha256):
                    raise ContentError(self.url(name), "not the announced size and digest")
            except BaseException:
                on_bytes(-content.tell())
                raise
            return content.getvalue()
        return self._try(name, attempt)

    def download(self, name, path, size, sha256, on_bytes=lambda count: None):
        """Brings a file of known size and digest to `path`, going on from what an earlier try left at `path`.part.

        `on_bytes` hears of bytes as they come, and of a negative number when some came in vain.
        @throws FetchError; OSError when the file cannot be written
        """
        part, counted = path + ".part", 0

        def count(number):
            nonlocal counted
            counted += number
            on_bytes(number)

        def attempt():
            done = False
            while not done:
                count(-counted)  # each try counts what it finds
                done = self._continue(name, part, size, sha256, count)
        try:
            self._try(name, attempt)
            os.rename(part, path)
        except _DiskError as error:
            raise error.__cause__

    def _continue(self, name, part, size, sha256, on_bytes):
        """Brings what a part file lacks. Returns False when it was begun earlier and is of no use: it is gone then."""
        with _disk_errors():
            file = open(os.open(part, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600), "r+b")
        with file:
            have = begun = file.seek(0, os.SEEK_END)
            on_bytes(have)
            if have < size:
                stream, offset = self.open(name, have, self._deadline(size))
                with stream:
                    if offset != have:
                        on_bytes(-have)
                        have = begun = file.seek(0)
                        file.truncate()
                    have += _copy(stream, file, size - have, on_bytes)
            with _disk_errors():
                file.flush()
                os.fsync(file.fileno())
        if have < size:
            raise OSError(f"ended after {have} of {size} bytes")
        if have == size and files.sha256(part) == sha256:
            return True
        with _disk_errors():
            os.unlink(part)
        if not begun:
            raise ContentError(self.url(name), "not the announced size and digest")
        return False

    def _deadline(self, size):
        return time.monotonic() + self.patience.limit + size / self.patience.slowest

    def _try(self, name, attempt):
        left = self.patience.attempts
        while True:
            left -= 1
            try:
                return attempt()
            except (OSError, ContentError) as error:
                if left <= 0 or isinstance(error, Refused):
                    raise error if isinstance(error, FetchError) else FetchError(self.url(name), error) from error
            time.sleep(self.patience.pause)


def _copy(stream, file, most, on_bytes):
    """Copies at most one byte more than `most`; returns how many."""
    copied = 0
    while copied <= most and (data := stream.read1(min(CHUNK, most - copied + 1))):
        with _disk_errors():
            file.write(data)
        copied += len(data)
        on_bytes(len(data))
    return copied


class _DiskError(Exception):
    """Carries an error of the local disk past the retries, which are for the source's."""


@contextlib.contextmanager
def _disk_errors():
    try:
        yield
    except OSError as error:
        raise _DiskError() from error
