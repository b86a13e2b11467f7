"""A helper that dies, or meets a disk that takes no more, at any of its calls that change the file system.

Whatever happens: the task ends, its files are gone, the image is the old one or the new one, and the next task runs.
A few calls of each operation are broken here; `--every-point` breaks each of them, one after the other.
"""

import errno
import hashlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import uuid

import pytest

from fault_injection import EXIT_AT_START, FAIL, KILL_AT_START, KILL_BOTH, KILL_GUARD, KILL_WORKER, NOTHING
from sandboxed_host import LIFECYCLE, processes, wait_until
from orbi_client import OrbiError

TASKS = "com.tessel.cis.tasks"
DAEMON = "com.tessel.ryx.kestrel_daemon."
INSTALLED = "com.tessel.ryx.software.installed_image"
MOTD = pathlib.Path("/etc/motd")
UNKNOWN = "com.tessel.pelorus.lifecycle.RyxImage.UnknownError"
SOLUTION = {"solutions": {"tidemark-backup": {"version": "2.5.0-1", "components": []}}}
OLD = {"base_image": {"version": "8.0.1-1"}, "components": {}, **SOLUTION}
NEW = {"base_image": {"version": "8.0.2-1"}, "components": {}, **SOLUTION}
OPERATIONS = {  # DEPOTS stands for the depots
    "apply": (DAEMON + "software", "apply$task", {"depots": "DEPOTS", "software_spec": NEW}),
    "stage": (DAEMON + "software", "stage$task", {"depots": "DEPOTS", "software_spec": NEW}),
    "components": (DAEMON + "components", "apply$task",
                   {"depots": "DEPOTS", "components": {"fabric-tuning": "1.0.0-1"}}),
    "remove": (DAEMON + "solutions", "remove$task", {"solutions": ["tidemark-backup"]}),
    "extract": (INSTALLED, "extract_depot$task", {}),
    "set": ("com.tessel.ryx.hosts.settings", "set$task", {"depots": "DEPOTS", "image": NEW, "configuration": {
        "metadata": {"schema_version": "1.0"}, "profile": {"system": {"banner": {"motd": {"text": "new\n"}}}}}}),
}
BREAKAGES = {"worker": (KILL_WORKER, 0), "guard": (KILL_GUARD, 0), "both": (KILL_BOTH, 0),
             "full disk": (FAIL, errno.ENOSPC), "read-only disk": (FAIL, errno.EROFS)}


class Image:
    """The host's image with OLD installed, as it was before an operation and as it is."""

    def __init__(self, client, depot):
        self.client, self._depot, self._kept = client, depot, f"{LIFECYCLE}-kept"
        assert self.run(DAEMON + "software", "apply$task", {"depots": "DEPOTS", "software_spec": OLD}) == "SUCCEEDED"
        shutil.copytree(LIFECYCLE / "image", self._kept, symlinks=True)
        MOTD.write_text("old\n")
        self.old = self.content()

    def restore(self):
        shutil.rmtree(LIFECYCLE / "image")
        shutil.copytree(self._kept, LIFECYCLE / "image", symlinks=True)
        MOTD.write_text("old\n")

    def run(self, service, operation, fields):
        """Runs a task to its end, at which the host has to be free. Returns its status."""
        fields = {name: [self._depot] if value == "DEPOTS" else value for name, value in fields.items()}
        task = self.client.call(service, operation, **fields)
        # Not by calls: to check a password takes longer than many a task.
        wait_until(lambda: "endTime" in json.loads((LIFECYCLE / "task-status.json").read_text())[task], what="an end")
        self.last = self.client.call(TASKS, "get", task=task)
        wait_until(lambda: not [path for pattern in ("lifecycle.task", "*.pid", f"*{task}")
                                for path in LIFECYCLE.glob(pattern)], what="a free host without the task's documents")
        return self.last["status"]

    def content(self):
        """The running bank: its components and a digest of each file."""
        bank = LIFECYCLE / "image" / os.readlink(LIFECYCLE / "image/current")
        database = json.loads((bank / "image.json").read_text())
        listing = {entry["document"]["name"]: entry["document"]["version"] for entry in database["components"]}
        for path in (bank / "root").rglob("*"):
            kept = os.readlink(path) if path.is_symlink() else path.is_file() and path.read_bytes()
            listing[str(path.relative_to(bank))] = path.lstat().st_mode, hashlib.sha256(repr(kept).encode()).hexdigest()
        return listing


@pytest.fixture
def image(breaker, start_daemon, sample_depot, monkeypatch):
    daemon = start_daemon()
    monkeypatch.delenv("LD_PRELOAD")
    yield Image(daemon.client(), sample_depot)


@pytest.mark.parametrize("name", OPERATIONS)
def test_a_helper_broken_at_any_call_leaves_a_whole_image_and_a_free_host(breaker, image, points, name):
    assert image.run(*OPERATIONS["apply"]) == "SUCCEEDED"
    applied = image.content()
    image.restore()
    breaker.plan(NOTHING)
    assert image.run(*OPERATIONS[name]) == "SUCCEEDED"
    count, done = breaker.calls()[0], (image.content(), MOTD.read_text())
    plans = {how: [(*what, point, 0) for point in points(count, 4 if name == "apply" else 2)]
             for how, what in BREAKAGES.items()}
    plans["guard at its work"] = [(KILL_WORKER, 0, count // 2, point) for point in points(8, 2)]
    for how in plans:
        ends = [broken(breaker, image, plan, name, done) == applied for plan in plans[how]]
        assert False not in ends, (how, plans[how][ends.index(False)])
        print(f"{name}, {how}: {len(ends)} of {count} calls broken")


def broken(breaker, image, plan, name, done):
    """Runs an operation under a plan, and then an apply. Returns the image after both."""
    image.restore()
    breaker.plan(*plan)
    status = image.run(*OPERATIONS[name])
    steps = [(image.old, "old\n"), (done[0], "old\n"), done]
    assert (image.content(), MOTD.read_text()) in (steps[2:] if status == "SUCCEEDED" else steps), plan
    assert status == "SUCCEEDED" or plan[0] != KILL_GUARD and image.last["error"], plan
    if status == "FAILED" and plan[0] != FAIL:
        assert UNKNOWN in json.dumps(image.last["error"]), (plan, image.last)
    breaker.plan(NOTHING)
    assert image.run(*OPERATIONS["apply"]) == "SUCCEEDED", (plan, image.last)
    return image.content()


@pytest.mark.parametrize("action", [KILL_AT_START, EXIT_AT_START])
@pytest.mark.parametrize("name", ["apply", "set"])
def test_a_helper_that_dies_before_it_begins_ends_its_task(breaker, image, action, name):
    breaker.plan(action)
    assert image.run(*OPERATIONS[name]) == "FAILED" and UNKNOWN in json.dumps(image.last["error"])
    breaker.plan(NOTHING)
    assert image.run(*OPERATIONS[name]) == "SUCCEEDED"


@pytest.mark.parametrize("pid_file, record", [
    ("", None), ("PRECURSOR: ID", None), ("PRECURSOR: ID", {}),
    ("7 ID", {"status": "RUNNING", "operation": "com.tessel.ryx.hosts.settings.set$task"})])
def test_a_daemon_ends_what_died_before_it(start_daemon, sample_depot, pid_file, record):
    """At each step at which an apply can die together with the daemon."""
    task = str(uuid.uuid4())
    LIFECYCLE.mkdir(parents=True)
    (LIFECYCLE / "lifecycle.apply.pid").write_text(pid_file.replace("ID", task))
    (LIFECYCLE / "task-status.json").write_text(json.dumps({} if record is None else {task: record}))
    for document in ("depots-", "config-", "image-", "swspec-"):
        (LIFECYCLE / (document + task)).write_text("[]")
    client = start_daemon().client()
    wait_until(lambda: not [*LIFECYCLE.glob("*.pid"), *LIFECYCLE.glob(f"*{task}")], what="a free host")
    found = wait_until(lambda: [info for info in client.call(TASKS, "list").values() if info["status"] == "FAILED"]
                       or record is None, what="an end")
    assert record is None or UNKNOWN in json.dumps(found[0]["error"])
    assert Image(client, sample_depot).run(*OPERATIONS["set"]) == "SUCCEEDED"


@pytest.fixture
def small_disk(fresh_host):
    """A disk of its own for the tasks and the image, which tests may fill and make read-only."""
    LIFECYCLE.mkdir(parents=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64m", "tmpfs", LIFECYCLE], check=True)
    yield
    subprocess.run(["umount", "--lazy", LIFECYCLE], check=True)


@pytest.mark.parametrize("trouble", ["full", "read-only"])
def test_a_disk_that_takes_nothing_is_told_and_changes_nothing(small_disk, start_daemon, sample_depot, trouble):
    daemon = start_daemon()
    image, filler = Image(daemon.client(), sample_depot), LIFECYCLE / "filler"
    if trouble == "full":
        with pytest.raises(OSError), open(filler, "wb", buffering=0) as file:
            while file.write(bytes(4096)):
                pass
    else:
        subprocess.run(["mount", "-o", "remount,ro", LIFECYCLE], check=True)
    for name, message in (("apply", "softwarespec.write.error"), ("stage", "softwarespec.write.error"),
                          ("components", "task.contention"), ("remove", "task.contention")):
        with pytest.raises(OrbiError) as refusal:
            image.run(*OPERATIONS[name])
        assert refusal.value.message_ids == ["com.tessel.ryx." + message]
    assert image.content() == image.old and len(daemon.client().call(TASKS, "list")) == 1
    assert daemon.client().call(INSTALLED, "get")["base_image"]["version"] == "8.0.1-1"
    subprocess.run(["mount", "-o", "remount,rw", LIFECYCLE], check=True)
    filler.unlink(missing_ok=True)
    assert image.run(*OPERATIONS["remove"]) == image.run(*OPERATIONS["apply"]) == "SUCCEEDED"


def test_a_helper_of_the_daemon_before_keeps_a_second_from_the_image(start_daemon, sample_depot):
    daemon = start_daemon()
    image = Image(daemon.client(), sample_depot)
    with socket.create_server(("127.0.0.1", 0)) as silent:  # a depot that answers nothing, so that the first stays
        silent.settimeout(30)
        service, operation, fields = OPERATIONS["apply"]
        depots = [f"http://127.0.0.1:{silent.getsockname()[1]}"]
        first = daemon.client().call(service, operation, **fields | {"depots": depots})
        silent.accept()
        daemon.process.kill()
        daemon.process.wait()
        image.client = start_daemon().client()
        for name in OPERATIONS:
            assert image.run(*OPERATIONS[name]) == "FAILED" and "LockingError" in json.dumps(image.last["error"])
        assert image.content() == image.old and image.client.call(TASKS, "get", task=first)["status"] == "RUNNING"
        for found in (*processes(f"task-guard {first[:8]}"), *processes(f"--task-id\0{first}")):
            os.kill(found, signal.SIGKILL)
        wait_until(lambda: not processes(first), what="the end of the first")
        info = wait_until(lambda: (info := image.client.call(TASKS, "get", task=first))["status"] == "FAILED" and info,
                          what="an end told by the daemon that did not start it")
        assert UNKNOWN in json.dumps(info["error"])
    assert image.run(*OPERATIONS["apply"]) == "SUCCEEDED" and image.content() != image.old
