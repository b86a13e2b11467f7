"""Runs inside a booted host: changes its software image through the daemon, and looks at what the host makes of it.

The name of a scenario below is the argument; BOOT tells how often the host has booted.
"""

import http.client
import os
import pathlib
import subprocess
import sys
import time

REPOSITORY = pathlib.Path("/repository")
sys.path[:0] = [str(REPOSITORY / folder) for folder in ("tools", "helpers", "tests/helpers")]

from orbi_client import Client

BOOT = int(os.environ["BOOT"])
REBOOT, CUT = 75, 76
SOFTWARE = "com.tessel.ryx.kestrel_daemon.software"
IMAGE = pathlib.Path("/var/tessel/lifecycle/image")
SAMPLE = "/srv/sample"


def sh(*command, check=True):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    assert done.returncode == 0 or not check, f"{command}: {done.returncode}, {done.stdout}"
    return done.stdout.strip()


def shown(unit, what="ActiveState"):
    return sh("systemctl", "show", f"--property={what}", "--value", unit)


def until(condition, seconds=30):
    """What a condition tells as soon as it is true."""
    end = time.monotonic() + seconds
    while not (told := condition()):
        assert time.monotonic() < end, "it does not become so"
        time.sleep(0.02)
    return told


def page():
    """What the status page answers, or None when nobody does."""
    try:
        connection = http.client.HTTPConnection("127.0.0.1", 8642, timeout=5)
        connection.request("GET", "/")
        return connection.getresponse().read().decode().split()[-1]
    except OSError:
        return None


def links():
    """The names that the image has in the folders of systemd."""
    return sorted(path.name for folder in ("systemd/system", "sysctl.d", "tmpfiles.d")
                  for path in pathlib.Path("/run", folder).glob("*")
                  if path.is_symlink() and os.readlink(path).startswith("/opt/tessel/"))


class Host:
    """The daemon of this host, asked for changes of its image."""

    def __init__(self, depot, base):
        subprocess.run(["chpasswd"], input="root:kestrel", text=True, check=True)
        sh("systemctl", "start", "kestreld")
        self._client = Client(user="root", password="kestrel")
        self._depot, self._base = depot, base

    def _image(self, components):
        wanted = {name: {"version": version} for name, _, version in (word.partition(" ") for word in components)}
        return {"depots": [self._depot], "software_spec": {"base_image": {"version": self._base},
                                                           "components": wanted}}

    def begin(self, *components):
        return self._client.call(SOFTWARE, "apply$task", **self._image(components))

    def end(self, task):
        return self._client.wait_for_task(task, timeout=200)

    def apply(self, *components):
        """Brings the host to these components ("name version"); returns the `activation` of the result."""
        info = self.end(self.begin(*components))
        assert info["status"] == "SUCCEEDED", info
        return info["result"].get("activation")

    def refused(self, *components):
        """Asks for these components, which is refused; returns the messages: identifier's last part -> arguments."""
        info = self.end(self.begin(*components))
        assert info["status"] == "FAILED", info
        return told(info)

    def scan(self, *components):
        info = self.end(self._client.call(SOFTWARE, "scan$task", **self._image(components)))
        assert info["status"] == "SUCCEEDED", info
        return info["result"]

    def installed(self):
        return self._client.call("com.tessel.ryx.software.installed_image", "get")

    def tasks(self):
        return self._client.call("com.tessel.cis.tasks", "list")


def told(info):
    (error,) = info["error"].values()
    return {message["id"].rsplit(".", 1)[-1]: message["args"] for message in error["messages"]}


def sample_host():
    if BOOT == 1:
        sh(str(REPOSITORY / "helpers/build-depot"), str(REPOSITORY / "helpers/sample-depot"), SAMPLE)
    return Host(SAMPLE, "8.0.1-1")


def services():
    """The sample's service through its life: it answers, is replaced, comes with each boot, and goes."""
    if BOOT == 1:
        host = sample_host()
        assert host.apply("status-page 1.0.0-1") == {"status": "ACTIVE", "reboot_pending": [], "messages": []}
        assert page() == "1.0.0"
        assert sh("runuser", "-u", "nobody", "--", "bash", "-lc", "status-page").endswith("status-page 1.0.0")
        assert host.apply("status-page 1.1.0-1")["status"] == "ACTIVE"
        assert page() == "1.1.0"
        return REBOOT
    if BOOT in (2, 3):
        assert until(page) == "1.1.0"
        return REBOOT if BOOT == 3 else CUT
    if BOOT == 4:
        host = sample_host()
        assert until(page) == "1.1.0"
        host.apply()
        assert (page(), shown("status-page", "LoadState"), links()) == (None, "not-found", [])
        return REBOOT
    assert (page(), links()) == (None, [])
    return 0


if __name__ == "__main__":
    sys.exit(globals()[sys.argv[1]]())
