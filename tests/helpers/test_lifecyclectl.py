"""The apply of a whole desired state, beside a stand-in for the daemon that speaks its protocol on its port."""

import http.server
import json
import os
import pathlib
import shutil
import signal
import threading
import uuid

import pytest
from metamodel_check import check
from sandboxed_host import BINARIES, LIFECYCLE, PORT, wait_until
from tessel_lifecycle import paths
from tessel_lifecycle.daemon_client import Daemon
from tessel_lifecycle.errors import TaskError
from tessel_lifecycle.host_configuration import DesiredConfiguration
from tessel_lifecycle.image import Image
from tessel_lifecycle.plain_json import error_value, message, opened, optional, structure

TICKETS, PID_FILE = pathlib.Path(paths.TICKETS), pathlib.Path(paths.APPLY_PID)
DOCUMENTS = {"image": {"base_image": {"version": "8.0.1-1"}, "components": {}}, "config": {"text": 'ä "quoted"'}}
IMAGE, CONFIGURATION = DOCUMENTS.values()
SERVICE = "com.tessel.ryx.kestrel_daemon.configuration."
CHECKED = structure(SERVICE[11:] + "check_apply_result", spec_id=optional("spec-1"), impacts=[], errors=[])
APPLIED = structure(SERVICE[11:] + "apply_result", messages=[message(TaskError("com.example.half", ["ntp"]))])
CHECK, APPLY = "check_apply$task", "apply$task"


def failure(identifier):
    return error_value("any", message(TaskError(identifier, ["argument"])))


CONTENTION, LOST = failure("com.tessel.ryx.task.contention"), failure(SERVICE + "apply.invalid_specid.error")


class StandIn(http.server.ThreadingHTTPServer):
    """`script` tells for each operation how its calls go, the last one again and again: the result of a task, the error
    it fails with, (the call's own error,), "endless" for a task that is, or bytes instead of an answer."""

    def __init__(self):
        super().__init__(("127.0.0.1", PORT), Handler)
        self.script, self.calls, self.tasks, self.tickets = {CHECK: [CHECKED], APPLY: [APPLIED]}, [], {}, []

    def use(self, user, password):
        """As the daemon: a ticket is a well-kept file, and good for one call."""
        assert user == password and len(user) >= 16 and user not in self.tickets
        path = TICKETS / f"rntkt-{user}"
        assert [at.stat().st_mode & 0o777 for at in (TICKETS, path)] == [0o700, 0o600]
        text, _, names = path.read_bytes().partition(b"\n")
        assert text == user.encode() and names.split(b"\0")[1:] == [b"Lifecycle", b"root", b""]
        self.tickets.append(user)
        path.unlink()

    def answer(self, operation, fields):
        if operation == "get":
            states = self.tasks[fields["task"]]
            return {"output": states.pop(0) if len(states) > 1 else states[0]}
        self.calls.append((operation, fields))
        steps = self.script[operation]
        outcome = steps.pop(0) if len(steps) > 1 else steps[0]
        if isinstance(outcome, (bytes, tuple)):
            return outcome if isinstance(outcome, bytes) else {"error": outcome[0]}
        how = {"RUNNING": {}} if outcome == "endless" else {"PENDING": {}, "RUNNING": {}, (
            "FAILED" if "ERROR" in outcome else "SUCCEEDED"): {"result": optional(outcome), "error": optional(outcome)}}
        progress = {"progress": optional(structure("cis.task.progress", total=100, completed=50))}
        self.tasks[task := str(uuid.uuid4())] = [
            structure("cis.task.info", status=status, **progress, **outcome) for status, outcome in how.items()]
        return {"output": task}


class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        params = json.loads(self.rfile.read(int(self.headers["Content-Length"])))["params"]
        self.server.use(*(params["ctx"]["securityCtx"][name] for name in ("userName", "password")))
        answer = self.server.answer(params["operationId"], params["input"]["STRUCTURE"]["operation-input"])
        if not isinstance(answer, bytes):
            answer = b"HTTP/1.1 200 OK\r\n\r\n" + json.dumps({"jsonrpc": "2.0", "id": 1, "result": answer}).encode()
        self.wfile.write(answer)


@pytest.fixture
def daemon(host):
    with StandIn() as server:
        threading.Thread(target=server.serve_forever, args=(0.01,)).start()
        yield server
        server.shutdown()
    shutil.rmtree(TICKETS, ignore_errors=True)


def start(host, more=(), **documents):
    """Starts an apply as the daemon does, with documents that are JSON values or texts: (task, process)."""
    task, words = str(uuid.uuid4()), list(more or ("--cleanup-interval", "7200"))
    for name, document in documents.items():
        path = LIFECYCLE / f"{name}-{task}"
        path.write_text(document if isinstance(document, str) else json.dumps(document))
        words += [f"--{name.removesuffix('s')}-doc", path]
    if not PID_FILE.exists():
        PID_FILE.write_text(f"PRECURSOR: {task}")
    return task, host.launch([BINARIES / "lifecyclectl.py", "--apply", "--task-id", task, *words])


def ended(host, started, keeps=()):
    """The record of an apply that has come to its end and left nothing behind."""
    task, process = started
    process.communicate(timeout=15)  # less than the guard waits for a worker that does not end when it is told
    record = wait_until(lambda: "endTime" in host.record(task) and host.record(task))
    assert not list(LIFECYCLE.glob(f"*-{task}")) and (PID_FILE.exists() == (PID_FILE in keeps)), os.listdir(LIFECYCLE)
    assert record["operation"] == "com.tessel.ryx.hosts.settings.set$task" and process.returncode in (0, 1, -9)
    return record


def failed(record):
    """The identifiers of the messages of a failed apply."""
    assert record["status"] == "FAILED", record
    if "error" in record:
        return [record["error"]["message"]["id"]]
    messages = opened(json.loads(record["exception"]), "ERROR")[1].value["messages"]
    return [opened(found)[1].value["id"] for found in messages]


def halves(record):
    """Which halves a record says are done."""
    if "result" not in record:
        return set()
    check(result := json.loads(record["result"]), "com.tessel.ryx.hosts.settings.apply_result")
    return {name for name, half in opened(result)[1].value.items() if half["OPTIONAL"]}


@pytest.mark.parametrize("documents", [("config", "image", "depots"), ("config",), ("image", "depots")])
def test_what_is_given_is_applied(host, daemon, sample_depot, documents):
    daemon.script[CHECK].insert(0, (CONTENTION,))
    daemon.script[APPLY].insert(0, LOST)  # somebody checked another document meanwhile
    record = ended(host, start(host, **{name: {**DOCUMENTS, "depots": [sample_depot]}[name] for name in documents}))
    assert (record["status"], record["progress"]["completed"]) == ("SUCCEEDED", 100), record
    assert halves(record) == {"configuration" if "config" in documents else "image", *documents} - {"config", "depots"}
    assert [name for name, _ in daemon.calls] == ([CHECK, CHECK, APPLY, CHECK, APPLY] if "config" in documents else [])
    assert all(json.loads(fields.get("document", json.dumps(CONFIGURATION))) == CONFIGURATION
               and fields.get("spec_id", "spec-1") == "spec-1" for _, fields in daemon.calls)
    assert not list(TICKETS.glob("*"))


VIOLATED = structure(SERVICE[11:] + "check_apply_result", spec_id=optional(None), impacts=[], errors=[
    structure("any", host="h", messages=[message(TaskError(f"com.example.{n}"))]) for n in range(2)])


@pytest.mark.parametrize("operation, step, told", [
    (CHECK, VIOLATED, ["com.tessel.ryx.host_settings.cm.validation.error", "com.example.0", "com.example.1"]),
    (CHECK, (failure("orbi.provider.operation.unknown"),), ["orbi.provider.operation.unknown"]),
    (CHECK, failure(SERVICE + "parse.error"), [SERVICE + "parse.error"]),
    *((CHECK, junk, [SERVICE + "check_apply.error"]) for junk in (
        b"HTTP/1.1 413 No\r\n\r\n", b"HTTP/1.1 200 OK\r\n\r\n{", b'HTTP/1.1 200 OK\r\n\r\n{"result": {"error": 1}}')),
    (APPLY, LOST, [SERVICE + "apply.invalid_specid.error"]),
    (APPLY, failure(SERVICE + "apply.host_not_in_mm.error"), [SERVICE + "apply.host_not_in_mm.error"])])
def test_a_failing_configuration_is_told_with_what_was_done(host, daemon, sample_depot, operation, step, told):
    daemon.script[operation] = [step]
    record = ended(host, start(host, config=CONFIGURATION, image=IMAGE, depots=[sample_depot]))
    assert failed(record) == told and halves(record) == ({"image"} if operation == APPLY else set())
    assert (host.run("ryx --get")[1] != "null") == (record["progress"]["completed"] >= 70) == (operation == APPLY)
    assert len(daemon.calls) == (1 if operation == CHECK else 6 if step is LOST else 2)


def test_a_daemon_that_does_not_answer_is_given_up(host):
    with pytest.raises(TaskError) as error:
        DesiredConfiguration("{}", Daemon(absent=1)).check(print)
    assert error.value.identifier == SERVICE + "check_apply.error" and "refused" in error.value.detail.args[0]
    assert not os.path.exists(TICKETS)  # there is none before it is known who gets it


@pytest.mark.parametrize("operation, number, victim", [
    (CHECK, signal.SIGKILL, "worker"), (APPLY, signal.SIGKILL, "worker"), (APPLY, signal.SIGTERM, "guard")])
def test_a_killed_apply_ends_failed(host, daemon, sample_depot, operation, number, victim):
    daemon.script[operation] = ["endless"]
    task, process = start(host, config=CONFIGURATION, image=IMAGE, depots=[sample_depot])
    wait_until(lambda: any(name == operation for name, _ in daemon.calls))
    worker, named = PID_FILE.read_text().split()
    os.kill(int(worker) if victim == "worker" else process.pid, number)
    record = ended(host, (task, process))
    assert named == task and failed(record) == ["com.tessel.pelorus.lifecycle.RyxImage.UnknownError"]
    assert halves(record) == ({"image"} if operation == APPLY else set())


@pytest.mark.parametrize("more, documents, told", [
    ((), {}, "apply.no.input"), ((), {"image": IMAGE}, "apply.invalid.depots"),
    ((), {"image": IMAGE, "depots": []}, "apply.invalid.depots"), ((), {"config": "[]"}, "configuration.parse.error"),
    ((), {"image": IMAGE, "depots": [1]}, "invalidinput"), ((), {"image": "{", "depots": ["/d"]}, "SpecFormatError"),
    (("--cleanup-interval", "0", "--config-doc", "/gone"), {}, "configuration.parse.error"),
    *((words.split(), {}, "orbi.invalidinput") for words in (
        "stray", "--image-doc /x", "--cleanup-interval x", "--cleanup-interval 1 --cleanup-interval 2",
        "--cleanup-interval 1 --depot-doc"))])
def test_bad_input_is_named(host, more, documents, told):
    _, process = apply = start(host, more, **documents)
    assert process.stderr.read() and failed(ended(host, apply))[0].endswith(told) and process.returncode == 1


def test_one_apply_at_a_time(host, sample_depot):
    PID_FILE.write_text(f"1 {uuid.uuid4()}")
    contention = failed(ended(host, start(host, image=IMAGE, depots=[sample_depot]), keeps=[PID_FILE]))
    assert contention == ["com.tessel.ryx.lifecycle.task.contention"]
    PID_FILE.unlink()
    with Image(paths.IMAGE).locked():
        assert failed(ended(host, start(host, image=IMAGE, depots=[sample_depot])))[0].endswith(".LockingError")


def test_only_old_leftovers_are_removed(host, sample_depot):
    (LIFECYCLE / "image/stage").mkdir(parents=True)
    old = [f"{kind}-{uuid.uuid4()}" for kind in ("depots", "config", "image", "swspec")]
    old += ["image-other", "image/stage/left.part"]
    for name in (new := f"depots-{uuid.uuid4()}", *old):
        (LIFECYCLE / name).touch()
        os.utime(LIFECYCLE / name, None if name == new else (0, 0))
    failed(ended(host, start(host, image={"base_image": {"version": "9"}}, depots=[sample_depot])))
    assert [name for name in (new, *old) if (LIFECYCLE / name).exists()] == [new, *old[3:]], "the stage is wanted again"
    ended(host, start(host, image=IMAGE, depots=[sample_depot]))
    assert [name for name in (new, *old) if (LIFECYCLE / name).exists()] == [new, *old[3:5]]
