"""Breaking processes at a chosen one of their calls; see fault_injection.c."""

import mmap
import pathlib
import struct
import subprocess

NOTHING, KILL_WORKER, KILL_GUARD, KILL_BOTH, FAIL, KILL_AT_START, EXIT_AT_START, KILL_DAEMON = range(8)


def build_library(folder):
    """Compiles the library that is preloaded. Returns its path."""
    library, source = folder / "fault_injection.so", pathlib.Path(__file__).with_name("fault_injection.c")
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, source, "-ldl"], check=True)
    return library


class Breaker:
    """Tells the preloaded library what to do, and what it counted."""

    def __init__(self, folder):
        self.path = folder / "plan"
        self.path.write_bytes(bytes(24))
        with open(self.path, "r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 24)

    def plan(self, action, error=0, worker_at=0, guard_at=0):
        self._memory[:] = struct.pack("6i", action, error, worker_at, guard_at, 0, 0)

    def calls(self):
        """Calls that were counted: in the worker, in the guard."""
        return struct.unpack("6i", self._memory[:])[4:]
