"""Changing the host's files, so that a reader, a crash or a failure finds the old ones or the new ones."""

import contextlib
import os
import signal
import stat

from tessel_module.program import Refusal, note

NEW, OLD, ORIGINAL = ".kestreld-new", ".kestreld-old", ".before-kestreld"
NOTHING = "/nonexistent"  # what the link leads to that stands for an original that was not there
MOST = 1 << 24  # bytes; nothing that modules write comes near it


def read_text(path):
    """A file's text; None when there is no file or no text in it that a module could have written."""
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)  # a pipe would stall the reader
    except FileNotFoundError:
        return None
    if not stat.S_ISREG(os.fstat(descriptor).st_mode):
        os.close(descriptor)
        note(f"{path} is not a plain file")
        return None
    with open(descriptor, "rb") as file:
        content = file.read(MOST + 1)
    try:
        if len(content) > MOST:
            raise ValueError("it is too large")
        return content.decode("utf-8")
    except ValueError as error:
        note(f"{path} cannot be read as a text: {error}")
        return None


class FileChanges:
    """Changes to several files that happen together or not at all."""

    def __init__(self):
        self._steps = []  # (path, what makes the new one at a path beside it; None to remove it)
        self._undo = []

    def write(self, path, text, mode=0o644):
        """`mode` is for a file that is not there yet; one that is keeps its own and its owner."""
        if read_text(path) != text or os.lstat(path).st_nlink > 1 or os.path.islink(path):
            self._steps.append((path, lambda new: _write(path, new, text.encode("utf-8"), mode)))

    def link(self, path, target):
        self._steps.append((path, lambda new: os.symlink(target, new)))

    def remove(self, path):
        if os.path.lexists(path):
            self._steps.append((path, None))

    def take_over(self, path):
        """Keeps what is at a path beside it until it is given back, be it nothing."""
        if not is_taken_over(path):
            self._steps.append((path + ORIGINAL, lambda new: _link_original(path, new)))

    def give_back(self, path):
        if not is_taken_over(path):
            return
        if _is_nothing(path + ORIGINAL):
            self.remove(path)
        else:
            self._steps.append((path, lambda new: os.link(path + ORIGINAL, new, follow_symlinks=False)))
        self.remove(path + ORIGINAL)

    @contextlib.contextmanager
    def made(self):
        """Makes the changes; they are taken back when the body raises. @throws Refusal"""
        try:
            with _signals_blocked():
                self._make()
            yield
        except BaseException:
            with _signals_blocked():
                self._take_back()
            raise
        finally:
            for path, _ in self._steps:
                with contextlib.suppress(OSError):
                    _discard(path + OLD)
                    _discard(path + NEW)

    def _make(self):
        path = ""
        try:
            for path, make in self._steps:
                _make_directory(os.path.dirname(path))
                _discard(path + NEW)
                _discard(path + OLD)
                if make:
                    make(path + NEW)
            for path, make in self._steps:
                self._make_step(path, make)
            self._sync()
        except OSError as error:
            raise Refusal("com.tessel.modules.file", path, error.strerror) from None

    def _make_step(self, path, make):
        existed = os.path.lexists(path)
        if existed:
            os.link(path, path + OLD, follow_symlinks=False)
        self._undo.append((path, existed))
        if make:
            os.rename(path + NEW, path)
        elif existed:
            os.unlink(path)

    def _take_back(self):
        for path, existed in reversed(self._undo):
            try:
                if existed:
                    os.rename(path + OLD, path)
                else:
                    _discard(path)
            except OSError as error:
                note(f"{path} cannot be brought back: {error.strerror}")
        with contextlib.suppress(OSError):
            self._sync()

    def _sync(self):
        for directory in {os.path.dirname(path) for path, _ in self._steps}:
            _sync_directory(directory)


def is_taken_over(path):
    return os.path.lexists(path + ORIGINAL)


def _is_nothing(original):
    return os.path.islink(original) and os.readlink(original) == NOTHING


def _link_original(path, new):
    try:
        os.link(path, new, follow_symlinks=False)
    except FileNotFoundError:
        os.symlink(NOTHING, new)


def _write(path, new, content, mode):
    owner = None
    with contextlib.suppress(FileNotFoundError):
        owner = os.stat(path)
        mode = stat.S_IMODE(owner.st_mode)
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
    with open(os.open(new, flags, 0o600), "wb") as file:
        if owner:
            os.fchown(file.fileno(), owner.st_uid, owner.st_gid)
        os.fchmod(file.fileno(), mode)  # after the owner, whose change takes bits away
        file.write(content)
        file.flush()
        os.fsync(file.fileno())


def _make_directory(path):
    if not os.path.isdir(path):
        _make_directory(os.path.dirname(path))
        with contextlib.suppress(FileExistsError):
            os.mkdir(path)
        os.chmod(path, 0o755)
        _sync_directory(os.path.dirname(path))


def _sync_directory(path):
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def _discard(path):
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path)


@contextlib.contextmanager
def _signals_blocked():
    """The step that is under way and the note of it belong together."""
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)
