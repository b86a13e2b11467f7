"""Tasks of the host's software where they are kept, and what happens when something dies on the way."""

import concurrent.futures
import contextlib
import json
import os
import pathlib
import signal
import subprocess

import pytest

from sandboxed_host import LIFECYCLE, processes, served, wait_until
from orbi_client import OrbiError, envelope

DEPOTS = "com.tessel.ryx.host_settings.depots"
SOFTWARE = "com.tessel.ryx.kestrel_daemon.software"
TASKS = "com.tessel.cis.tasks"
SPECIFICATION = {"base_image": {"version": "8.0.1-1"}, "components": {}}


@pytest.fixture(scope="session")
def depot(sample_depot):
    """URL of the sample depot."""
    with served(sample_depot) as url:
        yield url


@pytest.fixture
def database(start_daemon):
    """A client of a daemon that keeps its tasks in the database."""
    switches = pathlib.Path("/etc/tessel/feature-states")
    switches.write_text("task_database = true\n")
    yield start_daemon().client()
    switches.unlink()


def run_task(client, operation, depot_url, *on_progress):
    task = client.call(SOFTWARE, operation, depots=[depot_url], software_spec=SPECIFICATION)
    return client.wait_for_task(task, *on_progress, interval=0.01)


def test_tasks_in_the_database(database, depot):
    seen = []
    applied = run_task(database, "apply$task", depot,
                       lambda info: seen.append((info.get("progress") or {}).get("completed", 0)))
    assert applied["status"] == "SUCCEEDED" and applied["result"]["changed"], applied
    assert seen == sorted(seen) and seen[-1] == 100
    assert run_task(database, "scan$task", depot)["result"]["status"] == "COMPLIANT"
    tasks = database.call(TASKS, "list")
    assert len(tasks) == 2 and list(tasks) == sorted(tasks)
    assert os.listdir(LIFECYCLE / "image") and not (LIFECYCLE / "task-status.json").exists()


def test_a_refused_scan_leaves_the_running_one_its_document(daemon, depot):
    """The document of scans has one path."""
    specifications = [SPECIFICATION, {"base_image": {"version": "8.0.2-1"}, "components": {}}]

    def scan(specification):
        try:
            return daemon.client().call(SOFTWARE, "scan$task", depots=[depot], software_spec=specification)
        except OrbiError as error:
            assert error.message_ids == ["com.tessel.ryx.task.contention"]
            return None

    scans = 0
    with concurrent.futures.ThreadPoolExecutor() as pool:
        for _ in range(3):
            for specification, task in zip(specifications, pool.map(scan, specifications)):
                if task is None:
                    continue
                info = daemon.client().wait_for_task(task, interval=0.01)
                assert info["status"] == "SUCCEEDED", info
                assert info["result"]["base_image"]["target"] == specification["base_image"]["version"]
                scans += 1
    assert scans >= 3


def test_plain_and_clean_answers_say_the_same(root, depot):
    root.call(DEPOTS, "create", spec={"name": "sample", "url": depot})
    call = envelope(DEPOTS, "list", {}, "root", "kestrel")
    bodies = {}
    for accept in ("application/json", "application/vnd.tessel.orbi.stream.json",
                   "application/vnd.tessel.orbi.cleanjson", "application/vnd.tessel.orbi.clean.stream.json"):
        response, body = root.post(call, {"Accept": accept})
        assert response.getheader("Content-Type") == accept
        assert response.getheader("Transfer-Encoding") == ("chunked" if ".stream." in accept else None)
        bodies[accept] = json.loads(body)
    plain, plain_stream, clean, clean_stream = bodies.values()
    assert plain == plain_stream and clean == clean_stream
    (value,) = plain["result"]["output"]
    fields = value["STRUCTURE"]["com.tessel.ryx.host_settings.depots.depot_spec"]
    assert fields["name"] == clean["result"]["output"][0]["name"] == "sample"


def processes_of(task):
    """The guard and the worker of a running task, once both are there; nothing before and after."""
    guards, workers = processes(f"task-guard {task[:8]}"), processes(f"\0{task}")
    return (guards[0], workers[0]) if len(guards) == len(workers) == 1 else ()


@pytest.fixture
def stalling_depot():
    """A depot that accepts connections and never answers, so that a task stays where it is."""
    import socket
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(100)
        yield f"http://127.0.0.1:{listener.getsockname()[1]}"


@pytest.mark.parametrize("sig", [signal.SIGKILL, signal.SIGSEGV, signal.SIGTERM])
def test_killed_worker_ends_the_scan_and_frees_the_host(root, depot, stalling_depot, sig):
    task = root.call(SOFTWARE, "scan$task", depots=[stalling_depot], software_spec=SPECIFICATION)
    wait_until(lambda: root.call(TASKS, "get", task=task)["status"] == "RUNNING", what="a running scan")
    _, worker = wait_until(lambda: processes_of(task), what="a guarded scan")
    os.kill(worker, sig)
    info = root.wait_for_task(task)
    assert info["status"] == "FAILED"
    assert "com.tessel.pelorus.lifecycle.RyxImage.UnknownError" in json.dumps(info["error"])
    assert run_task(root, "scan$task", depot)["status"] == "SUCCEEDED"
    wait_until(lambda: not processes_of(task), what="the end of the helper")


def test_detached_helper_outlives_the_daemon_and_does_not_hold_its_port(daemon, start_daemon, stalling_depot):
    task = daemon.client().call(SOFTWARE, "scan$task", depots=[stalling_depot], software_spec=SPECIFICATION)
    guard, worker = wait_until(lambda: processes_of(task), what="a guarded scan")
    os.kill(daemon.process.pid, signal.SIGKILL)
    daemon.process.wait()
    for pid in (guard, worker):
        kinds = set()
        for link in pathlib.Path(f"/proc/{pid}/fd").glob("[0-9]*"):
            with contextlib.suppress(FileNotFoundError):  # it works, and closes what it is done with
                kinds.add(os.readlink(link))
        assert kinds and not any("anon_inode" in kind for kind in kinds), kinds
    restarted = start_daemon()
    restarted.log.wait_for("HTTP endpoint listening", restarted.mark)
    assert not any("Failed to listen" in line for line in daemon.log.lines[restarted.mark:])
    assert restarted.client().call(TASKS, "get", task=task)["status"] == "RUNNING"
    os.kill(worker, signal.SIGKILL)
    assert restarted.client().wait_for_task(task)["status"] == "FAILED"


def test_many_helper_runs_leave_nothing_behind(root, daemon):
    def open_files():
        return len(os.listdir(f"/proc/{daemon.process.pid}/fd"))

    root.call(DEPOTS, "list")
    before = open_files()
    for _ in range(100):
        root.call(DEPOTS, "list")
    assert open_files() <= before
    children = subprocess.run(["ps", "--ppid", str(daemon.process.pid), "-o", "stat="], capture_output=True, text=True,
                              check=False).stdout.split()
    assert not any(state.startswith("Z") for state in children)
