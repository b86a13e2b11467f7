"""Files that must survive a crash, or be gone."""

import contextlib
import os
import stat


def replace(path, content, mode=0o644):
    """Puts `content` (bytes) in place of the file at once: readers and a crash find the old or the new one, whole.

    `mode` is for a file that is not there yet.
    """
    new = f"{path}.new"
    with contextlib.suppress(FileNotFoundError):
        mode = stat.S_IMODE(os.stat(path).st_mode)
    try:
        with open(os.open(new, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, mode), "wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())
        os.rename(new, path)
    except BaseException:
        remove(new)
        raise
    sync_directory(os.path.dirname(path))


def sync_directory(path):
    """Makes renames and removals in a directory last."""
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def remove(path):
    """Removes a file if it is there and can be removed."""
    with contextlib.suppress(OSError):
        os.unlink(path)


def open_regular(path):
    """Opens a plain file for reading; a pipe or device raises OSError instead of stalling the reader."""
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    if not stat.S_ISREG(os.fstat(descriptor).st_mode):
        os.close(descriptor)
        raise OSError(22, "not a plain file", path)
    return open(descriptor, "rb")


def read_bounded(path, most):
    """A plain file's content; ValueError when it is longer than `most` bytes."""
    with open_regular(path) as file:
        content = file.read(most + 1)
    if len(content) > most:
        raise ValueError(f"{path} is too large")
    return content


def sha256(path):
    """The digest of a file's content in hexadecimal."""
    import hashlib  # slow to load, and commands that only report need no digests
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()
