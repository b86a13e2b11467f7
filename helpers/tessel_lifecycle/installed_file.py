"""Telling whether an installed file is still what its package brought.

Every file of a package gets one modification time when it is installed: that of its package's `installed_at` in the
image's database, in whole seconds. A file that somebody has written to since has another, so that most files need not
be read. Banks share files by hard links: a file that was edited in one bank is changed in the other as well.
"""

import datetime
import os
import stat

from tessel_lifecycle import files

_SECOND = 10 ** 9  # nanoseconds


def installation_time(installed_at):
    """The modification time, in seconds, of the files of a package that was installed at a date-time."""
    return int(datetime.datetime.fromisoformat(installed_at).timestamp())


def set_time(path_or_descriptor, time):
    """Gives a file its modification time, in seconds. @throws OSError"""
    os.utime(path_or_descriptor, ns=(time * _SECOND, time * _SECOND))


def is_untouched(path, file, time):
    """Whether type, size, mode, owner and modification time of the plain file at `path` are as it was installed."""
    try:
        status = os.lstat(path)
    except OSError:
        return False
    return _is_alike(status, file) and status.st_mtime_ns == time * _SECOND


def is_as_installed(path, file, time):
    """Whether what lies at `path` is the PayloadFile `file` as it was installed at `time`, in seconds.

    Content is read only where size and mode are right and the time is not. What cannot be read is not as installed.
    """
    try:
        status = os.lstat(path)
        if file.type == "directory":
            return stat.S_ISDIR(status.st_mode) and stat.S_IMODE(status.st_mode) == file.mode
        if file.type == "link":
            return stat.S_ISLNK(status.st_mode) and os.readlink(path) == file.target
        return _is_alike(status, file) and (status.st_mtime_ns == time * _SECOND or has_content(path, file))
    except OSError:
        return False


def has_content(path, file):
    """Whether the plain file at `path` has a PayloadFile's size and digest, whatever its mode. @throws OSError"""
    return (stat.S_ISREG((status := os.lstat(path)).st_mode) and status.st_size == file.size
            and files.sha256(path) == file.sha256)


def _is_alike(status, file):
    return (stat.S_ISREG(status.st_mode) and status.st_size == file.size
            and stat.S_IMODE(status.st_mode) == file.mode
            and (status.st_uid, status.st_gid) == (os.geteuid(), os.getegid()))
