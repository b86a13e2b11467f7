"""Fixtures: the package from the source tree, and the host on which installed commands run."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import uuid

import pytest
from metamodel_check import check
from sandboxed_host import LIFECYCLE, REPOSITORY, processes

sys.path.insert(0, str(REPOSITORY / "helpers"))
COMMAND = ["/usr/bin/python3", "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py"]


RESULTS = {"--scan": "com.tessel.ryx.kestrel_daemon.software.scan_result",
           "--stage": "com.tessel.ryx.kestrel_daemon.software.stage_result",
           "--verify": "com.tessel.ryx.kestrel_daemon.software.scan_result",
           "--rollback": "com.tessel.ryx.kestrel_daemon.software.apply_result",
           "--apply": "com.tessel.ryx.kestrel_daemon.software.apply_result",
           "--remove": "com.tessel.ryx.kestrel_daemon.software.apply_result",
           "--extract": "com.tessel.ryx.software.installed_image.depot_extract_info"}


UNSIGNED = "com.tessel.pelorus.lifecycle.RyxImage.PaxsTakenUnsigned"


def without_unsigned(fields):
    """A result without the warning that packages are not signed: those of most tests are not."""
    warnings = [entry for entry in (fields.get("warnings") or {}).get("OPTIONAL") or ()
                if all(message["id"] != UNSIGNED for message in entry["STRUCTURE"].values())]
    return fields | {"warnings": {"OPTIONAL": warnings or None}} if "warnings" in fields else fields


class Host:
    """The host that the tests run on, with nothing installed and nothing registered."""

    records_file = LIFECYCLE / "task-status.json"
    sync_file = LIFECYCLE / "lifecycle.task"

    def __init__(self):
        self._started = []

    def run(self, line, document=None):
        """Runs an inline command: (exit code, standard output, standard error)."""
        done = subprocess.run(COMMAND + line.split(), capture_output=True, text=True, timeout=60,
                              input=document if isinstance(document, str) else json.dumps(document))
        for_people = [line for line in done.stderr.split("\n") if not line.startswith("\x1e")]
        return done.returncode, done.stdout, "\n".join(for_people)

    def start(self, line, document=None):
        """Starts a task as the daemon does. `line` may hold ID and DOCUMENT. Returns (task identifier, process)."""
        task = str(uuid.uuid4())
        path = f"{LIFECYCLE}/swspec-{task}"
        if "--scan" in line:
            path = "/var/run/lifecycle.scan.swspec"
        if document is not None:
            pathlib.Path(path).write_text(json.dumps(document))
        self.sync_file.write_text(f"PRECURSOR: {task}")
        return task, self.launch(COMMAND + line.replace("ID", task).replace("DOCUMENT", path).split())

    def launch(self, words):
        """Starts a process as the daemon does, to be ended with the test."""
        self._started.append(subprocess.Popen(words, stderr=subprocess.PIPE, start_new_session=True))
        return self._started[-1]

    def end_processes(self):
        """Ends what a failed test has left running."""
        for process in self._started:
            for found in (*processes("task-guard"), *processes(os.path.dirname(COMMAND[1]))):
                os.kill(found, signal.SIGKILL)
            process.wait()
            process.stderr.close()
        self._started.clear()

    def record(self, task):
        return json.loads(self.records_file.read_text()).get(task, {}) if self.records_file.exists() else {}

    def task(self, line, document=None):
        """Carries out a task and returns its record."""
        task, process = self.start(line, document)
        process.communicate(timeout=120)
        return self.record(task)

    def result(self, line, document=None):
        """Carries out a task that has to succeed and returns its result's fields, still in plain JSON."""
        record = self.task(line, document)
        assert record["status"] == "SUCCEEDED", record
        result = json.loads(record["result"])
        check(result, next(kind for word, kind in RESULTS.items() if word in line))
        ((_, fields),) = result["STRUCTURE"].items()
        return without_unsigned(fields)

    def error(self, line, document=None):
        """Carries out a task that has to fail and returns its identifier's last part and its arguments."""
        record = self.task(line, document)
        assert record["status"] == "FAILED" and "endTime" in record and not self.sync_file.exists(), record
        return record["error"]["message"]["id"].rpartition(".")[2], record["error"]["message"]["args"]


@pytest.fixture(scope="session")
def throw_away_host():
    assert os.path.exists(COMMAND[1]), "not installed here: run in tools/sandbox --host DIR"
    in_use = LIFECYCLE.exists() and set(os.listdir(LIFECYCLE)) - {".locks"}
    assert not in_use, f"{LIFECYCLE} is in use: run in tools/sandbox"


@pytest.fixture
def host(throw_away_host):
    LIFECYCLE.mkdir(parents=True, exist_ok=True)
    made = Host()
    yield made
    made.end_processes()
    shutil.rmtree(LIFECYCLE)
