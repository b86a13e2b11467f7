"""Files that must survive a crash, or be gone."""

import contextlib
import os
import stat

from tessel_lifecycle import paths


def make_state_private():
    """Closes to other users what this process makes from now on, and the state's folder if it is there.

    What is meant for everybody gets its mode from who writes it.
    """
    os.umask(0o077)
    with contextlib.suppress(OSError):  # it may not be there; or not one's own, and then nothing else can be done
        if os.stat(paths.LIFECYCLE).st_mode & 0o066:  # through it everybody reaches the programs of the image
            os.chmod(paths.LIFECYCLE, 0o711)


def replace(path, content, mode=0o644):
    """Puts `content` (bytes) in place of the file at once: readers and a crash find the old or the new one, whole.

    `mode`, less what the umask takes away, is for a file that is not there yet; one that is keeps its own.
    """
    new, kept = f"{path}.new", None
    with contextlib.suppress(FileNotFoundError):
        mode = kept = stat.S_IMODE(os.stat(path).st_mode)
    try:
        with open(os.open(new, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, mode), "wb") as file:
            if kept is not None:
                os.fchmod(file.fileno(), kept)
            file.write(content)
            file.flush()
            os.fsync(file.fileno())
        os.rename(new, path)
    except BaseException:
        remove(new)
        raise
    sync_directory(os.path.dirname(path))


class Successor:
    """The next content of a file, written and synced before it takes the file's place.

    It has no name until then, so that nothing is left of one whose process is killed.
    """

    def __init__(self, path, parts, mode):
        """`parts` are pieces of bytes; the umask takes nothing from `mode`.

        @throws OSError, also where the file system knows no files without a name
        """
        self._path = path
        flags = os.O_WRONLY | os.O_TMPFILE | os.O_CLOEXEC
        self._file = open(os.open(os.path.dirname(path), flags, mode), "wb")
        try:
            os.fchmod(self._file.fileno(), mode)
            self._file.writelines(parts)
            self._file.flush()
            os.fsync(self._file.fileno())
        except BaseException:
            self._file.close()
            raise

    def take_place(self):
        """Replaces the file, which nobody else may do meanwhile; lasts when the directory is synced. @throws OSError"""
        new, own = f"{self._path}.new", self._file.fileno()
        remove(new)
        # Only with some directory is the link of /proc followed, though its path is absolute.
        os.link(f"/proc/self/fd/{own}", new, src_dir_fd=own, follow_symlinks=True)
        os.rename(new, self._path)

    def close(self):
        """What has not taken its place is gone then."""
        self._file.close()


def make_directories(path):
    """Makes a directory and those above it that are missing, open to everybody as those of an image are."""
    if not os.path.isdir(path):
        make_directories(os.path.dirname(path))
        os.mkdir(path)
        os.chmod(path, 0o755)


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
