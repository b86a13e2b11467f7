"""The desired state: registered depots and the software specification, each a JSON file replaced at once."""

import contextlib
import fcntl
import os

from tessel_lifecycle import files
from tessel_lifecycle.document import compact, parse

MOST_DOCUMENT = 16 << 20


class DesiredState:
    """The files below a directory. What is read and written back is changed within `locked`."""

    def __init__(self, directory):
        self._directory = directory
        self._depots, self._spec = os.path.join(directory, "depots.json"), os.path.join(directory, "spec.json")

    @contextlib.contextmanager
    def locked(self):
        """Keeps other helpers from changing the desired state. @throws OSError"""
        os.makedirs(self._directory, exist_ok=True)
        with open(os.path.join(self._directory, "lock"), "a") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            yield

    def depots(self):
        """The registered depots as JSON values. @throws OSError, ValueError"""
        return self._read(self._depots) or []

    def set_depots(self, depots):
        files.replace(self._depots, compact(depots).encode())

    def spec(self):
        """The desired specification as a JSON value, or None. @throws OSError, ValueError"""
        return self._read(self._spec)

    def set_spec(self, document):
        files.replace(self._spec, compact(document).encode())

    def _read(self, path):
        try:
            return parse(files.read_bounded(path, MOST_DOCUMENT))
        except FileNotFoundError:
            return None
