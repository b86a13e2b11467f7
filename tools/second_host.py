"""A second sandboxed host, to which the first one's image is carried; for the demonstration and the tests."""

import hashlib
import os
import pathlib
import stat
import subprocess

from orbi_client import Client

TOOLS = pathlib.Path(__file__).resolve().parent
DAEMON = "/usr/lib/tessel/lifecycle/bin/kestreld"
IMAGE = "var/tessel/lifecycle/image/current/root"


class NoSecondHost(Exception):
    """There can be only one sandboxed host here; the text says why."""


class SecondHost:
    """A host with a network and a /var/tessel of its own, empty at first; gone after the with statement.

    `root` is its root directory, seen from here.
    """

    def __init__(self):
        self._started = []
        # The host lives as long as its first process, which waits for the end of its input.
        self._host = subprocess.Popen([TOOLS / "sandbox", "--beside", "sh", "-c", "echo ready; exec cat"], text=True,
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if self._host.stdout.readline() != "ready\n":
            raise NoSecondHost(self._host.communicate()[1].strip())
        parent = self._host.pid
        self._init = pathlib.Path(f"/proc/{parent}/task/{parent}/children").read_text().split()[0]
        self.root = pathlib.Path("/proc", self._init, "root")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in reversed(self._started):
            process.terminate()
            process.communicate()
        self._host.communicate()

    def start_daemon(self, socket, user, password):
        """Starts kestreld in the host, where it ends with the host, and returns a client of it.

        `socket` is where the Unix socket that leads there is made.
        """
        daemon = subprocess.Popen(["nsenter", f"--target={self._init}", "--mount", "--net", "--pid", "--ipc", "--uts",
                                   DAEMON])
        self._started.append(daemon)
        self._on_network(TOOLS / "gateway", socket)
        client = Client(path=os.fspath(socket), user=user, password=password)
        client.wait_for_daemon(daemon)
        return client

    def serve(self, depot, *options):
        """Serves a folder of this host on the network of the second one; gives the URL."""
        return self._on_network(TOOLS / "serve-depot", depot, *options)

    def _on_network(self, *command):
        """Starts a program that sees this host's files and the other's network; gives the first line it prints."""
        self._started.append(subprocess.Popen(["nsenter", f"--target={self._init}", "--net", *command],
                                              stdout=subprocess.PIPE, text=True))
        return self._started[-1].stdout.readline().strip()


def installed_files(root="/"):
    """What the image of the host with this root directory has installed: path -> mode and digest or link's target."""
    image, found = pathlib.Path(root, IMAGE), {}
    for path in image.rglob("*"):
        status = path.lstat()
        content = (os.readlink(path) if stat.S_ISLNK(status.st_mode) else
                   hashlib.sha256(path.read_bytes()).hexdigest() if stat.S_ISREG(status.st_mode) else None)
        found[str(path.relative_to(image))] = status.st_mode, content
    return found
