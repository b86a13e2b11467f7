"""A file on its way: what has come of it so far, and whether it is what was announced."""

import contextlib
import hashlib

_PIECE = 1 << 20


class Unlike(Exception):
    """What came is not what was announced."""


class DiskError(Exception):
    """Carries an error of the local disk past the tries, which are for the source's; it is the `__cause__`."""


class Arriving:
    """A file of at most `most` bytes, or, with a digest, of exactly that size and digest, that is written as it comes.

    `file`, which has no buffer, holds what came of it earlier, which is gone on from.
    """

    def __init__(self, file, most, sha256, on_bytes):
        self._file, self.most, self.sha256, self._on_bytes = file, most, sha256, on_bytes
        self.have, self.received = 0, 0
        self.kept = 0          # bytes that were there when the present try began
        self.validator = None  # the ETag of what came, where it vouches for each byte (RFC 9110, section 8.8.1)
        self._digest = hashlib.sha256()
        with _disk_errors():
            while self.have <= most and (data := file.read(_PIECE)):
                self._digest.update(data)
                self.have += len(data)
        on_bytes(self.have)
        if self.have > most:
            self.restart()

    @property
    def is_whole(self):
        """Whether nothing is left to come."""
        return bool(self.sha256) and self.have == self.most

    def begin_try(self):
        """Leaves aside what cannot be gone on from: without a digest, only the ETag tells that it is one file."""
        if not self.sha256 and not self.validator:
            self.restart()
        self.kept = self.have

    def restart(self):
        """Forgets what came."""
        self.withdraw()
        with _disk_errors():
            self._file.seek(0)
            self._file.truncate()
        self.have = self.kept = 0
        self.validator, self._digest = None, hashlib.sha256()

    def withdraw(self):
        """Tells that nothing of it has come."""
        if self.have:
            self._on_bytes(-self.have)

    def take(self, data):
        """Adds what has come. @throws Unlike when it is too much, DiskError"""
        if self.have + len(data) > self.most:
            raise Unlike(f"larger than {self.most} bytes")
        try:
            written = self._file.write(data)
            while written < len(data):  # on a disk that is nearly full
                written += self._file.write(data[written:])
        except OSError as error:
            raise DiskError() from error
        self._digest.update(data)
        self.have += len(data)
        self.received += len(data)
        self._on_bytes(len(data))

    def check(self):
        """Called at the end of a good answer. @throws OSError when there is more to come, Unlike"""
        if self.sha256 and self.have < self.most:
            raise OSError(f"ended after {self.have} of {self.most} bytes")
        if self.sha256 and self._digest.hexdigest() != self.sha256:
            raise Unlike("not the announced size and digest")


@contextlib.contextmanager
def _disk_errors():
    try:
        yield
    except OSError as error:
        raise DiskError() from error
