"""Cross-process mutual exclusion named after a file path, shared with the daemon.

Whoever has the name bound in the abstract socket name space holds the lock; it goes with its holder.
"""

import contextlib
import errno
import hashlib
import os
import socket
import time

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
    """As access_lock, but returns what holds the lock until it is closed, in this process and those forked from it."""
    name, end = lock_name(path), time.monotonic() + patience
    holder = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    while True:
        try:
            holder.bind(name)
            return holder
        except OSError as error:
            if error.errno != errno.EADDRINUSE:
                raise
        if time.monotonic() >= end:
            raise LockTimeout(f"the lock of {path} is not given free")
        time.sleep(_PAUSE)


class LockTimeout(Exception):
    """Somebody else has held the lock all the time."""
