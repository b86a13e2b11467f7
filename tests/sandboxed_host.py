"""The sandboxed host that the whole-daemon tests run in: its paths, its system log, and runs of the daemon."""

import contextlib
import os
import pathlib
import socket
import subprocess
import sys
import threading
import time

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPOSITORY / "tools"))

from orbi_client import Client

BINARIES = pathlib.Path("/usr/lib/tessel/lifecycle/bin")
STATE = pathlib.Path("/var/tessel")
LIFECYCLE = STATE / "lifecycle"
MODULES = pathlib.Path("/usr/lib/tessel/configmanager/apply_modules")
PORT = socket.getservbyname("kestreld") if os.path.exists(BINARIES / "kestreld") else 0


def is_instrumented():
    """Whether the daemon is built with a sanitizer, which brings an allocator and much memory of its own."""
    program = (BINARIES / "kestreld").read_bytes()
    return b"__asan_" in program or b"__tsan_" in program


def wait_until(condition, seconds=30, what="the condition"):
    """Polls until `condition` returns something true, and returns that. The more seldom the longer it takes."""
    deadline, pause = time.monotonic() + seconds, 0.005
    while time.monotonic() < deadline:
        result = condition()
        if result:
            return result
        time.sleep(pause)
        pause = min(1.5 * pause, 0.05)
    raise AssertionError(f"{what} did not come true within {seconds} s")


def processes(text):
    """The processes whose command line holds a text, by identifier."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        with contextlib.suppress(OSError):  # it may just have ended
            if text.encode() in path.read_bytes():
                found.append(int(path.parent.name))
    return found


@contextlib.contextmanager
def served(depot, *options):
    """Serves a depot over HTTP; gives its URL."""
    with subprocess.Popen([REPOSITORY / "tools/serve-depot", depot, *options], stdout=subprocess.PIPE,
                          text=True) as process:
        try:
            yield process.stdout.readline().strip()
        finally:
            process.kill()


class SystemLog:
    """The host's system log: keeps the lines that arrive at /dev/log."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        with contextlib.suppress(FileNotFoundError):
            os.unlink("/dev/log")
        self._socket.bind("/dev/log")
        self.lines = []
        threading.Thread(target=self._collect, daemon=True).start()

    def _collect(self):
        while True:
            self.lines.append(self._socket.recv(65536).decode(errors="replace"))

    def wait_for(self, text, start=0):
        """Waits for a line that contains `text` and returns it."""
        return wait_until(lambda: next((line for line in self.lines[start:] if text in line), None),
                          what=f"a log line with {text!r}")

    def mark(self):
        return len(self.lines)


class Daemon:
    """One run of kestreld. `descriptors` is how many it may open, when not as many as the tests."""

    def __init__(self, log, descriptors=None):
        self.log = log
        self.mark = log.mark()
        limit = ["prlimit", f"--nofile={descriptors}"] if descriptors else []
        self.process = subprocess.Popen([*limit, BINARIES / "kestreld"])
        try:
            wait_until(self._answers, what="the first answer")
        except BaseException:
            self.process.kill()
            self.process.wait()
            raise

    def _answers(self):
        """Whether a request is answered: a port is open before the daemon has opened all that it uses."""
        assert self.process.poll() is None, f"kestreld ended with {self.process.returncode}"
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", PORT), timeout=1) as connection:
            connection.sendall(b"GET / HTTP/1.1\r\n\r\n")
            return connection.recv(1) == b"H"
        return False

    def client(self, user="root", password="kestrel", forwarded_for=None):
        return Client(port=PORT, user=user, password=password, forwarded_for=forwarded_for)

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        return self.process.wait(20)
