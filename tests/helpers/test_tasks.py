"""Records of tasks: how they begin, go on and end, whatever happens to the processes and files involved."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import subprocess
import threading

import pytest
from conftest import COMMAND
from sandboxed_host import LIFECYCLE, processes, served, wait_until
from tessel_lifecycle import paths
from tessel_lifecycle.lock import LockTimeout, access_lock, lock_name

SPEC = {"base_image": {"version": "8.0.1-1"}, "components": {}}
SCAN = "software --scan --software-spec DOCUMENT --depot {} --task-id ID"
APPLY = " software --apply --task-id ID --depot {} --software-spec DOCUMENT"
NOBODY = "00000000-0000-0000-0000-000000000000"
LOCK_DIGEST = b"b41d5ec3972b050ca5d85e4e0d4be798"
DOCUMENT = pathlib.Path("/var/run/lifecycle.scan.swspec")


@pytest.fixture
def slow_depot(sample_depot):
    """URL of the sample depot behind a line on which its metadata take several seconds."""
    with served(sample_depot, "--rate", "3000") as url:
        yield url


def children(process):
    return [int(p) for p in pathlib.Path(f"/proc/{process}/task/{process}/children").read_text().split()]


def running_scan(host, depot):
    """A scan under way: (task, guard's process, worker's process identifier)."""
    task, process = host.start(SCAN.format(depot), SPEC)
    wait_until(lambda: host.record(task).get("progress", {}).get("completed", 0) > 5)
    return task, process, children(process.pid)[0]


def ended(host, task):
    """The record of a task that has to be over, with nothing left that would keep the next one from starting."""
    record = wait_until(lambda: "endTime" in host.record(task) and host.record(task))
    assert not host.sync_file.exists() and not DOCUMENT.exists()
    return record


def assert_failed(record):
    assert record["status"] == "FAILED" and record["startTime"] <= record["endTime"] and record["operation"]
    assert record["error"] == {"message": {"id": "com.tessel.pelorus.lifecycle.RyxImage.UnknownError", "args": []}}


def test_a_scan_fills_its_record(host, sample_depot):
    old = {"status": "PENDING", "operation": "other", "unknown": [1, 2.5, {"deep": None}], "exception": "é"}
    host.records_file.write_text(json.dumps({"before": old, "after": 1}))
    task, process = host.start(SCAN.format(sample_depot), SPEC)
    record = ended(host, task)
    assert {k: record[k] for k in ("status", "operation", "user", "progress")} == {
        "status": "SUCCEEDED", "operation": "com.tessel.ryx.kestrel_daemon.software.scan$task", "user": "root",
        "progress": {"completed": 100, "total": 100}}
    records = json.loads(host.records_file.read_text())
    assert (records["before"], records["after"]) == (old, 1) and process.wait(10) == 0


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGSEGV])
@pytest.mark.parametrize("victim", ["worker", "line"])
def test_a_killed_scan_ends_failed_and_the_next_can_start(host, slow_depot, sample_depot, number, victim):
    task, process, worker = running_scan(host, slow_depot)
    if victim == "worker":
        os.kill(worker, number)
    else:
        for found in processes(f"--task-id\0{task}"):
            os.kill(found, number)
    assert_failed(ended(host, task))
    assert host.result(SCAN.format(sample_depot), SPEC)["status"] == "NON_COMPLIANT" and process.wait(10) == 1


def test_a_terminated_guard_ends_its_worker(host, slow_depot):
    task, process, worker = running_scan(host, slow_depot)
    process.terminate()
    assert_failed(ended(host, task))
    wait_until(lambda: not os.path.exists(f"/proc/{worker}"))


def test_a_worker_finishes_without_its_guard(host, slow_depot):
    task, process, _ = running_scan(host, slow_depot)
    process.kill()
    assert ended(host, task)["status"] == "SUCCEEDED"


def test_a_worker_is_guarded_again_when_its_guard_dies(host, slow_depot):
    task, process, worker = running_scan(host, slow_depot)
    for _ in range(3):
        first = wait_until(lambda: processes("task-guard"))
        os.kill(first[0], signal.SIGKILL)
        wait_until(lambda: processes("task-guard") and processes("task-guard") != first)
    os.kill(worker, signal.SIGKILL)
    assert_failed(ended(host, task))
    wait_until(lambda: not processes("task-guard"))


@pytest.mark.parametrize("line", [
    "software --scan --software-spec DOCUMENT --depot DEPOT stray --task-id ID",
    "software --scan --software-spec DOCUMENT --task-id ID",
    f"software --scan --software-spec DOCUMENT --depot DEPOT --task-id ID --task-id {NOBODY}",
    "software --scan --software-spec DOCUMENT --software-spec /etc/passwd --depot DEPOT --task-id ID",
    "components --apply --task-id ID --depot DEPOT --component nothing",
    "components --apply --task-id ID --depot DEPOT"])
def test_lines_that_are_not_understood_end_the_task(host, sample_depot, line):
    if line.startswith("components"):
        host.result(APPLY.format(sample_depot), SPEC)
    document = SPEC if "--scan" in line else None
    assert host.error(line.replace("DEPOT", sample_depot), document) == ("invalidinput", [])
    assert not DOCUMENT.exists()


def test_a_line_without_a_task_is_refused(host):
    for line in ("software --scan --software-spec /x --depot /y", "depots --extract --task-id ../../etc/passwd"):
        assert host.run(line)[0] == 1
    assert not host.records_file.exists()


def test_another_tasks_sync_file_stays(host, sample_depot):
    task, process = host.start(SCAN.format(sample_depot), SPEC)
    host.sync_file.write_text("PRECURSOR: another")
    process.communicate()
    assert host.record(task)["status"] == "SUCCEEDED" and host.sync_file.read_text() == "PRECURSOR: another"


@pytest.mark.parametrize("content", [None, "", "{", "[]", '{"a": NaN}', '{"a": 1} x', "deep", '{"a": "\udc80"'])
def test_a_status_file_that_cannot_be_read_starts_anew(host, sample_depot, content):
    if content is not None:
        text = "[" * 100000 if content == "deep" else content
        host.records_file.write_bytes(text.encode(errors="surrogateescape"))
    assert host.result(SCAN.format(sample_depot), SPEC)["status"] == "NON_COMPLIANT"
    assert len(json.loads(host.records_file.read_text())) == 1


def test_the_lock_excludes_whoever_binds_its_name(host, sample_depot, monkeypatch):
    path = str(host.records_file)
    # As the daemon names it: the digest of the path, "task-status.json" being in /var/tessel/lifecycle.
    assert lock_name(path) == b"\0/com/tessel/" + LOCK_DIGEST
    monkeypatch.chdir(LIFECYCLE)
    assert lock_name("task-status.json") == lock_name(path)
    with access_lock(path, 0):
        with pytest.raises(LockTimeout), access_lock(path, 0.05):
            pass
        task, process = host.start(SCAN.format(sample_depot), SPEC)
        wait_until(lambda: children(process.pid))
        with pytest.raises(subprocess.TimeoutExpired):
            process.wait(1)
        assert host.record(task) == {}
    assert ended(host, task)["status"] == "SUCCEEDED"
    with socket.socket(socket.AF_UNIX) as holder:
        holder.bind(lock_name(path))


def test_many_writers_lose_no_record(host, sample_depot):
    from tessel_lifecycle.records import DatabaseRecords, FileRecords
    for records in (FileRecords(str(host.records_file)), DatabaseRecords(str(host.records_file) + ".db")):
        def count(number, records=records):
            for _ in range(20):
                records.change(f"task-{number % 2}", lambda record: record.update(n=record.get("n", 0) + 1), 30)
        threads = [threading.Thread(target=count, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert {k: v["n"] for k, v in json.loads(host.records_file.read_text()).items()} == {"task-0": 40, "task-1": 40}
    assert {k: json.loads(v)["n"] for k, v in rows()} == {"task-0": 40, "task-1": 40}


def rows():
    with sqlite3.connect(paths.TASK_DATABASE) as database, contextlib.suppress(sqlite3.OperationalError):
        return database.execute("SELECT id, record FROM tasks").fetchall()
    return []  # the table is only being made


def test_records_live_in_the_database_behind_the_switch(host, slow_depot):
    pathlib.Path(paths.FEATURE_STATES).write_text("# of this host\ntask_database = true\n")
    try:
        task, process = host.start(SCAN.format(slow_depot), SPEC)
        wait_until(lambda: os.path.exists(paths.TASK_DATABASE) and rows())
        os.kill(wait_until(lambda: children(process.pid))[0], signal.SIGKILL)
        process.communicate()
        ((found, record),) = rows()
        assert found == task and not host.records_file.exists() and not host.sync_file.exists()
        assert_failed(json.loads(record))
    finally:
        os.unlink(paths.FEATURE_STATES)


def test_an_apply_killed_while_it_writes_leaves_no_half_bank(host, sample_depot):
    for _ in range(20):  # until one is hit before it is done
        task, process = host.start(APPLY.format(sample_depot), SPEC)
        wait_until(lambda: (LIFECYCLE / "image/a/root").exists())
        with contextlib.suppress(IndexError, ProcessLookupError):
            os.kill(children(process.pid)[0], signal.SIGKILL)
        process.communicate()
        if ended(host, task)["status"] == "FAILED" and not (LIFECYCLE / "image/current").is_symlink():
            break
        shutil.rmtree(LIFECYCLE / "image")
    assert_failed(host.record(task))
    assert host.run("ryx --get")[1] == "null" and not (LIFECYCLE / "image/a").exists()
    assert not list(LIFECYCLE.glob("swspec-*"))


def test_a_depot_that_is_not_there_fails_the_scan(host):
    task, process = host.start(SCAN.format("/nowhere"), SPEC)
    process.stderr.close()  # a daemon that has gone does not listen, and that is no other failure
    assert ended(host, task)["error"]["message"]["id"].endswith(".DepotConnectError")


def test_a_full_disk_keeps_the_old_records(host, slow_depot):
    """The status file on a small disk of its own that is full while the task ends, and then is not."""
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", str(LIFECYCLE)], check=True)
    try:
        old = {"status": "PENDING", "operation": "x" * 12000}  # more than the task's own files give free
        host.records_file.write_text(json.dumps({"old": old}))
        task, process, _ = running_scan(host, slow_depot)
        with pytest.raises(OSError), open(LIFECYCLE / "filler", "wb", buffering=0) as filler:
            while filler.write(bytes(4096)):
                pass
        wait_until(lambda: not host.sync_file.exists())
        assert host.record("old") == old and host.record(task)["status"] == "RUNNING"
        (LIFECYCLE / "filler").unlink()
        assert ended(host, task)["status"] == "SUCCEEDED" and host.record("old") == old
        process.communicate()
    finally:
        host.end_processes()
        subprocess.run(["umount", str(LIFECYCLE)], check=True)


def test_an_inline_command_gives_up_after_its_limit(host):
    """The limit itself is shortened in a copy of the script, so that the test need not wait for it."""
    start = ("import sys; sys.argv[0:1] = []; sys.path.insert(0, %r); from tessel_lifecycle import cli; "
             "cli.INLINE_LIMIT = 1; sys.exit(cli.main(['depots', '--create']))" % os.path.dirname(COMMAND[1]))
    process = subprocess.Popen(["/usr/bin/python3", "-c", start], stdin=subprocess.PIPE, stderr=subprocess.PIPE)
    assert process.wait(20) == 83 and process.stderr.read().startswith(b"given up after 1 seconds\n\x1e{")
    process.stdin.close()
