"""Cross-process mutual exclusion named after a file path, shared with the daemon.

Whoever has the name bound in the abstract socket name space holds the lock; it goes with its holder. Any account of the
host can bind names: one that another user has is no lock. What excludes then is a byte of the file of locks, in a
folder that no other user can enter: it is taken before the name, and given free after it.
"""

import contextlib
import errno
import fcntl
import hashlib
import os
import socket
import struct
import syslog
import time

from tessel_lifecycle import paths
from tessel_lifecycle.socket_owner import owner_of_name

_FLOCK = struct.Struct("hhqqi0q")
_PAUSE = 0.01  # seconds; the daemon holds the lock for milliseconds


def lock_name(path):
    """The socket address of a path's lock; the digest only spreads names.

    The path is made absolute and otherwise taken as it stands, as the daemon does.
    """
    absolute = os.path.join(os.getcwd(), path)
    digest = hashlib.md5(os.fsencode(absolute), usedforsecurity=False).hexdigest()
    return b"\0/com/tessel/" + digest.encode()


@contextlib.contextmanager
def access_lock(path, patience):
    """Holds the lock of a path, waiting for it at most `patience` seconds. @throws LockTimeout, OSError"""
    with take(path, patience):
        yield


def take(path, patience):
    """As access_lock, but returns the lock, held until it is closed in this process and those forked from it."""
    name, end = lock_name(path), time.monotonic() + patience
    while True:
        lock = Lock()
        try:
            if lock.take(name):
                return lock
        except BaseException:
            lock.close()
            raise
        lock.close()
        if time.monotonic() >= end:
            raise LockTimeout(f"the lock of {path} is not given free")
        time.sleep(_PAUSE)


class Lock:
    """What holds a lock: the byte of the file of locks, and the socket that has the name."""

    def __init__(self):
        self._file, self._socket = None, socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def descriptors(self):
        return [self._socket.fileno(), *([] if self._file is None else [self._file.fileno()])]

    def close(self):
        self._socket.close()  # first: whoever has the byte finds the name free then
        if self._file:
            self._file.close()

    def take(self, name):
        """Returns False when somebody else holds the lock. @throws OSError"""
        without_byte = None
        try:
            if not self._take_byte(name):
                return False
        except OSError as error:
            without_byte = error
        try:
            self._socket.bind(name)
            return True
        except OSError as error:
            if error.errno != errno.EADDRINUSE:
                raise
        owner = owner_of_name(name)
        if owner in (None, os.geteuid()):
            return False
        if without_byte:
            raise without_byte
        syslog.syslog(syslog.LOG_ERR,
                      f"[AccessLock]: socket{{{name[1:].decode()}}} is bound by user {owner}, which is no lock")
        return True

    def _take_byte(self, name):
        """Locks the name's byte, by an open file description lock (fcntl_locking(2))."""
        os.makedirs(os.path.dirname(paths.LOCKS), mode=0o700, exist_ok=True)
        flags = os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC
        self._file = open(os.open(paths.LOCKS, flags, 0o600), "r+b", buffering=0)
        byte = int(name[-32:][:15], 16)
        try:
            fcntl.fcntl(self._file, fcntl.F_OFD_SETLK, _FLOCK.pack(fcntl.F_WRLCK, os.SEEK_SET, byte, 1, 0))
            return True
        except OSError as error:
            if error.errno not in (errno.EAGAIN, errno.EACCES):
                raise
            return False


class LockTimeout(Exception):
    """Somebody else has held the lock all the time."""
