"""Runs inside a booted host: changes its software image through the daemon, and looks at what the host makes of it.

The name of a scenario below is the argument; BOOT tells how often the host has booted.
"""

import http.client
import itertools
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time
import uuid

REPOSITORY = pathlib.Path("/repository")
sys.path[:0] = [str(REPOSITORY / folder) for folder in ("tools", "helpers", "tests/helpers")]

from depot_maker import base_image, component, package, write_depot
from orbi_client import Client

BOOT = int(os.environ["BOOT"])
REBOOT, CUT = 75, 76
SOFTWARE = "com.tessel.ryx.kestrel_daemon.software"
IMAGE = pathlib.Path("/var/tessel/lifecycle/image")
SAMPLE = "/srv/sample"
HELPER = ("/usr/bin/python3", "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py")


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


def on_the_host(verb):
    """Carries out a task that only root on the host can ask for."""
    sh(*HELPER, "software", verb, "--task-id", str(uuid.uuid4()))


def services():
    """The sample's service through its life: it answers, is replaced, comes with each boot, and goes."""
    if BOOT == 1:
        host = sample_host()
        assert host.apply("status-page 1.0.0-1") == {"status": "ACTIVE", "reboot_pending": [], "messages": []}
        assert page() == "1.0.0"
        assert sh("runuser", "-u", "nobody", "--", "bash", "-lc", "status-page").endswith("status-page 1.0.0")
        assert host.apply("status-page 1.1.0-1")["status"] == "ACTIVE"
        assert page() == "1.1.0"
        for version in ("1.0.0", "1.1.0"):
            on_the_host("--rollback")
            assert page() == version
        program, process = pathlib.Path("/opt/tessel/lib/status-page/serve"), shown("status-page.service", "MainPID")
        whole = program.read_text()
        program.write_text(whole + "# changed\n")
        assert host.apply("status-page 1.1.0-1")["status"] == "ACTIVE" and program.read_text() == whole
        assert page() == "1.1.0" and shown("status-page.service", "MainPID") != process
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


def unit(*lines, kind="exec"):
    return "[Service]\n" + "".join(line + "\n" for line in (f"Type={kind}", *lines))


def serving(word):
    """A unit that tells its word while it runs."""
    return unit(f"ExecStart=/bin/sh -c 'echo {word} >/run/word; exec sleep infinity'")


def one(name, version="1-1", files=None, **descriptor):
    """A component of one package. Files directly named are units, and declared."""
    units = {path: text for path, text in (files or {}).items() if "/" not in path}
    payload = {**{f"lib/systemd/system/{path}": text for path, text in units.items()},
               **{path: text for path, text in files.items() if "/" in path}}
    descriptor.setdefault("services", [path for path in units if path.endswith(".service")])
    return [component(name, version, paxs=[f"{name} {version}"]),
            package(f"{name} {version}", payload, **descriptor)]


PARAMETER = pathlib.Path("/proc/sys/net/ipv4/conf/all/log_martians")
PACKAGES = [
    *one("word", "1-1", {"word.service": serving("one")}),
    *one("word", "2-1", {"word.service": serving("two")}),
    *one("needs", files={"needs.service": "[Unit]\nRequires=word.service\nAfter=word.service\n"
                         + unit("ExecStart=/bin/sleep infinity")}),
    *one("broken", files={"broken.service": unit("ExecStart=/bin/sh -c 'echo no colour printer >&2; exit 3'"),
                          "lib/sysctl.d/70-broken.conf": "net.ipv4.conf.all.log_martians = 1\n"}),
    *one("alone", files={"alone.service": "[Unit]\nRequires=nothing-there.service\n" + serving("alone")}),
    *(part for n in (1, 2) for part in one("beside", f"{n}-1", {
        "beside.service": "[Unit]\nWants=side.service\n" + unit("ExecStart=/bin/sleep infinity"),
        "lib/systemd/system/side.service": unit(f"ExecStart=/bin/sh -c 'echo {n} >/run/side; exec sleep infinity'")},
        services=["beside.service"])),
    *one("brief", files={"brief.service": unit("ExecStart=/bin/sleep 1")}),
    *one("restless", files={"restless.service": unit("ExecStart=/bin/sleep 1", "Restart=always")}),
    *one("silent", files={"silent.service": unit("ExecStart=/bin/sleep infinity", "TimeoutStartSec=2",
                                                 kind="notify")}),
    *one("clash", files={"rsyslog.service": serving("clash")}),
    *one("settings", files={"lib/sysctl.d/70-settings.conf": "net.ipv4.conf.all.log_martians = 1\n"}),
    *one("temporary", files={"lib/tmpfiles.d/70-temporary.conf": "d /run/x 0755 nobody-at-all - -\n"}),
    *one("grave", files={"share/grave": ""}, maintenance_mode=True),
    *one("ends", files={"ends.service": unit("ExecStart=/bin/true", kind="oneshot")}),
    *one("instance", files={"at@.service": unit("ExecStart=/bin/sh -c 'echo %i >/run/%i; exec sleep infinity'")},
         services=["at@x.service"]),
    *one("late", files={"late.service": unit("ExecStart=/bin/sh -c 'echo not at this boot >&2; exit 4'")},
         live_install=False),
    *one("slow", files={"slow.service": unit("ExecStart=/bin/sleep 20", "RemainAfterExit=yes", kind="oneshot")}),
]


def own_host():
    if not os.path.exists("/srv/own"):
        write_depot(pathlib.Path("/srv/own"), base_image("8.0-1"), *PACKAGES)
    return Host("/srv/own", "8.0-1")


def word():
    path = pathlib.Path("/run/word")
    return path.exists() and path.read_text().strip()


def state():
    return {"word": word(), "links": links(), "bank": os.readlink(IMAGE / "current"),
            "process": shown("word", "InvocationID"), "failed": sh("systemctl", "--failed", "--plain", "--no-legend"),
            "parameter": PARAMETER.read_text().strip()}


def failures():
    """Whatever fails, the image from before runs, and the client reads why. What is known beforehand is told so."""
    host = own_host()
    host.apply("word 1-1")
    host.apply("word 1-1", "ends 1-1")
    before = state()
    assert (before["word"], before["links"]) == ("one", ["ends.service", "word.service"])
    for name, identifier, arguments, part in (
            ("broken", "ServiceEnableError", ["broken(1-1)", "broken.service"], "no colour printer"),
            ("alone", "ServiceEnableError", ["alone(1-1)", "alone.service"], "nothing-there.service not found"),
            ("brief", "ServiceEnableError", ["brief(1-1)", "brief.service"], "ended after it had come up"),
            ("restless", "ServiceEnableError", ["restless(1-1)", "restless.service"], "ended after it had come up"),
            ("silent", "ServiceEnableError", ["silent(1-1)", "silent.service"], "timeout"),
            ("temporary", "LiveInstallationError", [], "nobody-at-all"),
            ("clash", "ServiceEnableError", ["clash(1-1)", "rsyslog.service"], "/lib/systemd/system/rsyslog.service"),
            ("grave", "MaintenanceModeError", [], "grave(1-1)")):
        messages = host.refused("word 2-1", "ends 1-1", f"{name} 1-1")
        assert messages[identifier] == arguments and part in str(messages), (name, messages)
        now = state() | {"process": before["process"]}
        assert now == before and shown("word") == "active", (name, now)
        before = state()  # the service was replaced and put back, under another invocation
        assert not (IMAGE / "activation.json").exists()
    for name in ("clash", "grave"):
        assert host.scan("word 2-1", "ends 1-1", f"{name} 1-1")["status"] == "INCOMPATIBLE"
    (IMAGE / "activation.json.new").mkdir()  # no mark can be written, and without it nothing is touched
    assert "InstallationError" in host.refused("word 2-1", "ends 1-1") and state() == before
    (IMAGE / "activation.json.new").rmdir()
    pathlib.Path("/run/tessel/maintenance-mode").touch()
    side = pathlib.Path("/run/side")
    host.apply("word 1-1", "ends 1-1", "beside 1-1")
    assert until(lambda: side.exists() and side.read_text()) == "1\n"
    host.refused("word 2-1", "ends 1-1", "beside 2-1", "broken 1-1")
    until(lambda: side.read_text() == "1\n" and shown("side") == "active")
    host.apply("word 1-1", "ends 1-1", "beside 2-1")  # one that another of the image brought up is replaced, too
    until(lambda: side.read_text() == "2\n" and shown("side") == "active")
    everything = host.apply("word 2-1", "needs 1-1", "settings 1-1", "grave 1-1", "instance 1-1")
    assert everything == {"status": "ACTIVE", "reboot_pending": [], "messages": []}
    assert (word(), PARAMETER.read_text(), shown("needs"), shown("at@x")) == ("two", "1\n", "active", "active")
    host.apply("word 2-1", "needs 1-1")
    assert (shown("at@x"), shown("at@x", "LoadState"), shown("word")) == ("inactive", "not-found", "active")
    return 0


def administrators():
    """What an administrator stopped or masked is left alone, and told; the host's own package manager works on."""
    host = own_host()
    host.apply("word 1-1")
    pathlib.Path("/run/systemd/system/word.service").unlink()
    assert host.apply("word 1-1")["status"] == "ACTIVE" and links() == ["word.service"]
    sh("systemctl", "stop", "word")
    (message,) = host.apply("word 1-1", "settings 1-1")["messages"]
    assert message["args"] == ["word.service", "it was stopped before"] and shown("word") == "inactive"
    sh("systemctl", "mask", "word")
    (message,) = host.apply("word 2-1")["messages"]
    assert message["args"] == ["word.service", "it is masked"] and (word(), shown("word")) == ("one", "inactive")
    sh("systemctl", "unmask", "word")
    sh("systemctl", "start", "word")
    assert until(lambda: word() == "two")
    package = pathlib.Path("/root/package")
    (package / "DEBIAN").mkdir(parents=True)
    (package / "DEBIAN/control").write_text(
        "Package: small\nVersion: 1\nArchitecture: all\nMaintainer: x <x@x.invalid>\nDescription: x\n")
    (package / "usr/lib/systemd/system").mkdir(parents=True)
    (package / "usr/lib/systemd/system/small.service").write_text(serving("small"))
    sh("dpkg-deb", "--build", str(package), "/root/small.deb")
    sh("apt-get", "install", "--yes", "/root/small.deb")
    sh("systemctl", "start", "small")
    sh("apt-get", "purge", "--yes", "small")
    sh("dpkg", "--install", "/root/kestreld.deb")  # again: as an upgrade
    until(lambda: shown("kestreld") == "active")
    assert shown("word") == "active"
    pathlib.Path("/opt/tessel").unlink()
    pathlib.Path("/opt/tessel").mkdir()
    messages = own_host().refused("word 2-1", "settings 1-1")
    assert messages["LiveInstallationError"] == [] and messages["PrefixTaken"][0] == "/opt/tessel"
    pathlib.Path("/opt/tessel").rmdir()
    assert own_host().apply("word 2-1")["status"] == "ACTIVE" and pathlib.Path("/opt/tessel").is_symlink()
    return 0


def pending():
    """What needs a boot is told until that was, or until it is taken back."""
    version = pathlib.Path("/run/clock-source/version")
    host = sample_host()
    if BOOT == 1:
        waits = {"status": "REBOOT_PENDING", "reboot_pending": ["clock-source"], "messages": []}
        assert host.apply("clock-source 1.0.0-1") == waits and not version.exists()
        assert host.installed()["reboot_pending"] == ["clock-source"]
        assert host.scan("clock-source 1.0.0-1")["reboot_pending"] == ["clock-source"]
        assert host.apply("clock-source 1.0.0-1") == waits
        assert host.apply()["status"] == "ACTIVE" and "reboot_pending" not in host.installed()
        assert host.apply("clock-source 1.0.0-1") == waits
        for expected in (None, ["clock-source"]):
            on_the_host("--rollback")
            assert host.installed().get("reboot_pending") == expected
        with socket.create_server(("127.0.0.1", 8642)):  # the status page's
            host.refused("clock-source 1.0.0-1", "status-page 1.0.0-1")
        assert (IMAGE / "activation.json").exists()  # the boot that was waited for is still watched
        return REBOOT
    until(lambda: not (IMAGE / "activation.json").exists())
    assert version.read_text() == "1.0.0\n" and "reboot_pending" not in host.installed()
    assert host.apply("clock-source 1.1.0-1")["reboot_pending"] == ["clock-source"]
    assert host.apply("clock-source 1.0.0-1") == {"status": "ACTIVE", "reboot_pending": [], "messages": []}
    assert version.read_text() == "1.0.0\n" and "reboot_pending" not in host.installed()
    return 0


def failed_tasks(host):
    return [told(info) for info in host.tasks().values() if info["status"] == "FAILED"]


def boots():
    """An image that does not come up at its boot gives way to the one from before, and somebody is told."""
    host = own_host()
    if BOOT == 1:
        host.apply("word 1-1")
        assert host.apply("word 2-1", "late 1-1")["status"] == "REBOOT_PENDING"
        return REBOOT
    if BOOT == 2:
        until(lambda: not (IMAGE / "activation.json").exists())
        assert until(word) == "one" and links() == ["word.service"]
        assert list(host.installed()["components"]) == ["word"]
        (failure,) = until(lambda: failed_tasks(host))
        assert failure["ServiceEnableError"] == ["late(1-1)", "late.service"] and "not at this boot" in str(failure)
        host.begin("word 2-1", "slow 1-1")
        until(lambda: (IMAGE / "activation.json").exists() and links() == ["slow.service", "word.service"])
        return CUT
    if BOOT == 3:  # the one boot that it gets; and the power fails again
        assert until(lambda: word() == "two")
        return CUT
    assert until(word) == "one" and links() == ["word.service"]
    assert any("LiveInstallationError" in failure for failure in failed_tasks(host))
    return 0


def other_times():
    """A host whose image nothing ran from; one whose image's database is lost; one whose package is removed."""
    if BOOT == 3:
        left = word(), links(), os.readlink("/opt/tessel")
        assert left == (False, [], str(IMAGE / "current/root")), left
        return 0
    host = own_host()
    if BOOT == 1:
        host.apply("word 1-1")
        sh("systemctl", "stop", "word")
        pathlib.Path("/run/word").unlink()
        pathlib.Path("/run/systemd/system/word.service").unlink()
        pathlib.Path("/opt/tessel").unlink()
        sh("systemctl", "daemon-reload")
        assert host.apply("word 1-1")["status"] == "ACTIVE" and (word(), links()) == ("one", ["word.service"])
        host.apply("word 2-1")
        host.apply("word 1-1")
        assert word() == "one"
        host.apply("word 2-1")
        (IMAGE / os.readlink(IMAGE / "current") / "image.json").write_text("{")
        return CUT
    assert until(word) == "one" and shown("word") == "active"
    (failure,) = failed_tasks(host)
    assert "its database cannot be read" in failure["BankUnusable"][1] and "PutBack" in failure, failure
    sh("dpkg", "--purge", "kestreld")
    assert shown("word") == "active" and sh("find", "/etc/systemd", "/var/lib/systemd", "-name", "kestreld*") == ""
    return REBOOT


def kill(task, names):
    """Kills the worker of a task, and its guard if that is among the names."""
    for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            line = path.read_bytes().decode()
        except OSError:
            continue
        if ("worker" in names and task in line) or ("guard" in names and line.startswith(f"task-guard {task[:8]}")):
            os.kill(int(path.parent.name), signal.SIGKILL)


def kills():
    """Whenever worker or guard are killed, what the host runs is one image whole: at once, or by the next task."""
    host, mark = own_host(), IMAGE / "activation.json"
    host.apply("word 1-1")
    moments = {
        "marked": mark.exists,
        "switched": lambda: os.readlink(IMAGE / "current") != bank,
        "linked": lambda: "at@.service" in links(),
        "restarted": lambda: word() == "two",
        "watched": lambda: word() == "two" and time.sleep(0.2) is None}
    for (moment, reached), names in itertools.product(moments.items(), (["worker"], ["guard", "worker"])):
        bank = os.readlink(IMAGE / "current")
        task = host.begin("word 2-1", "instance 1-1")
        until(lambda: reached() or task in host.tasks() and host.tasks()[task]["status"] == "FAILED")
        kill(task, names)
        info = host.end(task)
        assert info["status"] == "FAILED", (moment, info)
        if names == ["worker"]:
            assert not mark.exists() and os.readlink(IMAGE / "current") == bank, moment
            assert (until(lambda: word() == "one"), links()) == (True, ["word.service"]), moment
            assert (shown("word"), shown("at@x")) == ("active", "inactive"), moment
        host.apply("word 2-1", "instance 1-1")
        assert (word(), links(), shown("at@x")) == ("two", ["at@.service", "word.service"], "active"), moment
        host.apply("word 1-1")
        assert (word(), links(), shown("at@x")) == ("one", ["word.service"], "inactive"), moment
    return 0


if __name__ == "__main__":
    sys.exit(globals()[sys.argv[1]]())
