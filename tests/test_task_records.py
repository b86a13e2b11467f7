"""The task status file when it has no room left: nothing is lost, whatever becomes of who sets it aside.

Writers are killed at a few of their calls here; `--every-point` kills them at each of them, one after the other.
"""

import contextlib
import http.client
import json
import subprocess
import sys
import uuid

import pytest

from fault_injection import KILL_DAEMON, KILL_WORKER, NOTHING
from sandboxed_host import LIFECYCLE, REPOSITORY

TASKS = "com.tessel.cis.tasks"
CONFIGURATION = "com.tessel.ryx.kestrel_daemon.configuration"
SCAN = "com.tessel.ryx.kestrel_daemon.software"
STATUS = LIFECYCLE / "task-status.json"
LARGEST = 64 << 20
RUNNING = {"status": "RUNNING", "operation": "op", "startTime": "2026-11-21T02:12:52.123Z"}
ENDED = {**RUNNING, "status": "SUCCEEDED", "endTime": "2026-11-21T02:12:58.456Z"}
CHANGE = """import os, sys
sys.path.insert(0, sys.argv[1])
from tessel_lifecycle.records import FileRecords
if os.fork() == 0:
    FileRecords(sys.argv[2]).change(sys.argv[4], lambda record: record.update(result='"' + "x" * 1000 + '"'), 5)
    os._exit(0)
os.wait()
"""


def full_file():
    """Makes a status file without room for more than 100 bytes, and removes all others. Returns its identifiers."""
    for path in LIFECYCLE.glob("task-status.json*"):
        path.unlink()
    records = {str(uuid.uuid4()): record for record in (RUNNING, ENDED, ENDED, ENDED)}
    filler = LARGEST - 100 - len(json.dumps({str(uuid.uuid4()): {**ENDED, "result": ""}, **records}, indent=None,
                                            separators=(",", ":")))
    records = {str(uuid.uuid4()): {**ENDED, "result": "x" * filler}, **records}
    STATUS.write_text(json.dumps(records, separators=(",", ":")))
    assert STATUS.stat().st_size == LARGEST - 100
    return list(records)


def kept():
    """The identifiers in the status file and in those that were set aside; each of them has to be whole."""
    found = [json.loads(path.read_bytes()).keys() for path in LIFECYCLE.glob("task-status.json*")
             if ".new" not in path.name]
    return set().union(*found)


def test_tasks_go_on_when_the_file_is_full(root, sample_depot):
    *names, last = full_file()
    assert root.call(TASKS, "get", task=last)["status"] == "SUCCEEDED"
    scan = root.call(SCAN, "scan$task", depots=[sample_depot],
                     software_spec={"base_image": {"version": "8.0.1-1"}, "components": {}})
    assert root.call(TASKS, "get", task=last)["status"] == "SUCCEEDED"
    assert root.wait_for_task(scan, interval=0.02)["status"] == "SUCCEEDED"
    assert root.call(TASKS, "list").keys() == {scan, last, *names[1:]} and kept() == {scan, last, *names}


def change_by_daemon(breaker, start_daemon, names, action, point):
    daemon = start_daemon()
    breaker.plan(action, worker_at=point)
    with contextlib.suppress(OSError, http.client.HTTPException):
        daemon.client().call(CONFIGURATION, "validate$task", document="{}")
    calls = breaker.calls()[0]
    daemon.process.kill()  # where it made fewer calls this time
    daemon.process.wait()
    return calls


def change_by_helper(breaker, start_daemon, names, action, point):
    breaker.plan(action, worker_at=point)
    line = ["/usr/bin/python3", "-c", CHANGE, REPOSITORY / "helpers", STATUS, "--task-id", names[1]]
    subprocess.run(line, check=True)
    return breaker.calls()[0]


@pytest.mark.parametrize("change, action", [(change_by_daemon, KILL_DAEMON), (change_by_helper, KILL_WORKER)])
def test_who_is_killed_while_setting_aside_loses_nothing(breaker, start_daemon, points, change, action):
    STATUS.parent.mkdir(exist_ok=True)
    count = change(breaker, start_daemon, full_file(), action, 0)
    assert count >= 4 and len(list(LIFECYCLE.glob("task-status.json*"))) == 2
    for point in points(count, 5):
        names = full_file()
        change(breaker, start_daemon, names, action, point)
        assert kept() >= set(names), point
        breaker.plan(NOTHING)
        daemon = start_daemon()
        told = daemon.client().call(TASKS, "list").keys()
        assert told >= set(names[1:]) and kept() >= set(names), point
        daemon.stop()
    print(f"{len(points(count, 5))} of {count} calls", file=sys.stderr)
