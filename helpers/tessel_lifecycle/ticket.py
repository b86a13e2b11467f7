"""One-time tickets, by which the host's own tooling calls the daemon without a password.

A ticket's file holds the ticket, a line end, and three texts that end with a NUL each: the name of a configuration
file, which nobody uses, what the ticket is good for, and on whose behalf it is.
"""

import contextlib
import errno
import os
import stat

from tessel_lifecycle import caller, files, paths

_SERVICE = "Lifecycle"
_LONGEST_NAME = 127  # bytes; a longer one is left out


@contextlib.contextmanager
def issued():
    """A new ticket, void at the end at the latest. @throws OSError"""
    text = os.urandom(32).hex()
    path = f"{paths.TICKETS}/rntkt-{text}"
    user = caller.user().encode()
    user = user if len(user) <= _LONGEST_NAME else b""
    _set_up(paths.TICKETS)
    try:
        files.replace(path, f"{text}\n\0{_SERVICE}\0".encode() + user + b"\0", 0o600)
        yield text
    finally:
        files.remove(path)


def _set_up(directory):
    """Makes the directory if it is missing and closes it to others. @throws OSError, also when it is somebody else's"""
    os.makedirs(directory, mode=0o700, exist_ok=True)
    status = os.lstat(directory)
    if not stat.S_ISDIR(status.st_mode) or status.st_uid != os.geteuid():
        raise OSError(errno.EPERM, "not a directory of one's own", directory)
    os.chmod(directory, 0o700)
