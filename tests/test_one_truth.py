"""What the daemon and its helpers, written in two languages, both know: each has to know it as the other does."""

import ast
import json
import os
import pathlib
import re
import subprocess
import sys
import uuid

import pytest

import metamodel
from orbi_client import OrbiError
from sandboxed_host import BINARIES, LIFECYCLE, REPOSITORY, wait_until

sys.path.insert(0, str(REPOSITORY / "helpers"))

from tessel_lifecycle import apply_cli, cli, errors, host_claim, lock, paths, records, task

TASKS = "com.tessel.cis.tasks"
SCAN = "com.tessel.ryx.kestrel_daemon.software"
SETTINGS = "com.tessel.ryx.hosts.settings"
SPECIFICATION = {"base_image": {"version": "8.0.1-1"}, "components": {}}
FEATURE_STATES = pathlib.Path(paths.FEATURE_STATES)

ON = b"task_database = true\n"
FEATURE_STATE_FILES = {
    "missing": None,
    "empty": b"",
    "on": ON,
    "off": b"task_database = false\n",
    "no line end": b"task_database = true",
    "no blanks": b"task_database=true\n",
    "blanks around": b" \t\v\f task_database \t = \v true \f\n",
    "CR LF": b"task_database = true\r\n",
    "CR alone ends no line": b"task_scheduler = true\rtask_database = true\n",
    "other line ends": "task_scheduler = true\u2028task_database = true\n".encode() + b"\x1c\x85",
    "comments and blank lines": b"# one\n; two\n\n \t\n  # three\n" + ON + b";task_database = false\n",
    "comment behind the value": b"task_database = true # on\n",
    "comment with neither": b"#\n;\n" + ON,
    "other case": b"task_database = True\n",
    "other case of the name": b"Task_Database = true\n",
    "number": b"task_database = 1\n",
    "no value": b"task_database =\n",
    "quotes": b'task_database = "true"\n',
    "neither true nor false": b"task_database = yes\n",
    "second equals sign": b"task_database = true = true\n",
    "colon": b"task_database : true\n",
    "unknown names": b"a = 1\nb.c = 2\n" + ON,
    "dotted name": b"task_database.x = true\n",
    "line without equals sign, before": b"nonsense\n" + ON,
    "line without equals sign, behind": ON + b"nonsense\n",
    "line without name": ON + b" = x\n",
    "twice, alike": ON + ON,
    "twice, not alike": b"task_database = false\n" + ON,
    "another name twice": b"a = 1\na = 2\n" + ON,
    "in a section": b"[host]\n" + ON,
    "in a section without name": b"[]\n" + ON,
    "before a section": ON + b"[host]\na = 1\n",
    "in both": ON + b"[host]\ntask_database = false\n",
    "twice in a section": ON + b"[host]\na = 1\na = 2\n",
    "bad line in a section": ON + b"[host]\nnonsense\n",
    "empty section": ON + b"[host]\n",
    "empty section twice": ON + b"[host]\n[host]\n",
    "full section twice": ON + b"[host]\na = 1\n[other]\nb = 1\n[host]\nc = 1\n",
    "section twice, blanks apart": ON + b"[host]\na = 1\n[ host ]\nb = 1\n",
    "section named like a name": ON + b"[task_database]\na = 1\n",
    "empty section named like a name": ON + b"[task_database]\n",
    "section that is not closed": ON + b"[host\n",
    "text behind a section": b"[host] a = 1\n" + ON,
    "text behind a section, at the end": ON + b"[host] nonsense\n",
    "second bracket": ON + b"[a]b]\nx = 1\n[a]\ny = 1\n",
    "byte-order mark": b"\xef\xbb\xbf" + ON,
    "byte-order mark before a comment": b"\xef\xbb\xbf# x\n" + ON,
    "UTF-16": ON.decode().encode("utf-16"),
    "not UTF-8": b"name = \xff\xfe\xc0\n" + ON,
    "not UTF-8 in a comment": b"# \xe9\n" + ON,
    "no-break space": "task_database = true\u00a0\n".encode(),
    "NUL in the value": b"task_database = true\0\n",
    "NUL in a line of its own": ON + b"\0\n",
    "NUL in a comment": b"# \0\n" + ON,
    "NUL as a name": b"\0 = 1\n" + ON,
    "long line": b"a = " + b"x" * 1_000_000 + b"\n" + ON,
    "directory": "directory",
    "pipe": "pipe",
    "link to nothing": "/nowhere",
    "link to a device": "/dev/null",
}


@pytest.fixture
def feature_states(fresh_host):
    """Puts something in the place of the feature states' file."""
    def make(content):
        if content == "directory":
            FEATURE_STATES.mkdir()
        elif content == "pipe":
            os.mkfifo(FEATURE_STATES)
        elif isinstance(content, str):
            FEATURE_STATES.symlink_to(content)
        elif content is not None:
            FEATURE_STATES.write_bytes(content)

    yield make
    if FEATURE_STATES.is_dir():
        FEATURE_STATES.rmdir()
    else:
        FEATURE_STATES.unlink(missing_ok=True)


def records_of_the_daemon():
    """The file that a daemon begins its records in."""
    files = paths.TASK_STATUS, paths.TASK_DATABASE
    with subprocess.Popen([BINARIES / "kestreld"]) as process:
        try:
            return wait_until(lambda: [path for path in files if os.path.exists(path)], 10, "a file of records")[0]
        finally:
            process.kill()


@pytest.mark.parametrize("name", FEATURE_STATE_FILES)
def test_both_keep_the_records_in_the_same_place(feature_states, name):
    feature_states(FEATURE_STATE_FILES[name])
    assert records.open_records().path == records_of_the_daemon()


def test_a_scan_that_succeeds_is_told_so_whatever_the_feature_states_say(feature_states, start_daemon, sample_depot):
    feature_states(b"[host]\n" + ON)
    client = start_daemon().client()
    scan = client.call(SCAN, "scan$task", depots=[sample_depot], software_spec=SPECIFICATION)
    assert client.wait_for_task(scan, interval=0.02)["status"] == "SUCCEEDED"


OWN = "3b7c1c0e-4d1b-4f0e-9f57-0d9a6f1e2a33"
NO_JSON = ("NaN", "-Infinity", "01", '"\t"', "[1,]", "{a:1}", "'a'", "1.", ".5", "+1", "tru")
LIMITS = {  # values in a status file: whether it can be read
    "nested as deep as can be": ("[" * 998 + "]" * 998, True),
    "nested deeper than that": ("[" * 1000 + "]" * 1000, False),
    "nested too deep for most": ("[" * 990 + '{"a":1}' + "]" * 990, True),
    "nested deep in a text": (json.dumps("[" * 2000), True),
    "largest number": ("1.7976931348623157e308", True),
    "number beyond all": ("1e400", False),
    "number beyond all, below": ("-1.5E+309", False),
    "number beyond all, spelled out": ("1" * 310, False),
    "large number": ("1" * 308, True),
    "number of many digits": ("0." + "1" * 1000, True),
    "smallest number": ("1e-400", True),
    "large number in a text": ('"1e400, 1e400"', True),
    "half a character": ('"\\ud800"', False),
    "two first halves": ('"\\ud83d\\ud83d"', False),
    "second half of a character": ('"\\ude00"', True),
    "a whole one": ('"\\ud83d\\ude00"', True),
    "backslash before it": ('"\\\\ud800"', True),
    "not UTF-8": ('"\udcff"', True),
}


def test_both_take_and_refuse_the_same_records(root):
    """What is no JSON at all is found by helpers in their own records only: they do not take others apart."""
    file = LIFECYCLE / "task-status.json"
    own, other = '{"x":1,"%s":%%s}' % OWN, '{"%s":{"n":1},"x":%%s}' % OWN
    for form, value, readable in (*((form, *entry) for entry in LIMITS.values() for form in (own, other)),
                                  *((own, value, False) for value in NO_JSON)):
        text = form % ('{"status":"PENDING","x":%s}' % value)
        file.write_bytes(text.encode(errors="surrogateescape"))
        try:
            by_daemon = len(root.call(TASKS, "list")) == 2
        except OrbiError as error:
            assert error.message_ids[0] == "com.tessel.ryx.task.parse.error"
            by_daemon = False
        records.FileRecords(str(file)).change(OWN, lambda record: record.update(status="RUNNING"), 5)
        aside = list(LIFECYCLE.glob("task-status.json.2*"))
        for path in aside:
            path.unlink()
        assert (by_daemon, not aside) == (readable, readable), text[:100]


def message_of(error):
    ((_, fields),) = error.items()
    return fields["messages"][0]


def test_the_daemon_tells_what_a_helper_records(root):
    """Each failure in the same words, and times, progress and results as they were recorded."""
    failures = [errors.TaskError(name if name.startswith("com.") else errors.PREFIX + name, list("abcdefgh"))
                for name in errors.TEXTS]
    failed = {str(uuid.uuid4()): failure for failure in failures}
    operation = "com.tessel.ryx.kestrel_daemon.software.scan$task"
    for identifier, failure in failed.items():
        task.Task(identifier, operation, ()).fail(failure)
    running, succeeded = (task.Task(str(uuid.uuid4()), operation, ()) for _ in range(2))
    for started in (running, succeeded):
        started.start()
    running.progress(7)
    succeeded.succeed("done")
    kept, told = json.loads((LIFECYCLE / "task-status.json").read_text()), root.call(TASKS, "list")
    assert {name: (info["status"], info["progress"]["completed"]) for name, info in told.items()} == {
        **dict.fromkeys(failed, ("FAILED", 0)), running.id: ("RUNNING", 7), succeeded.id: ("SUCCEEDED", 100)}
    for name, info in told.items():
        assert (info["operation"], info["user"], info["start_time"], info.get("end_time")) == (
            operation, "root", kept[name]["startTime"], kept[name].get("endTime"))
    assert told[succeeded.id]["result"] == "done"
    for name, failure in failed.items():
        message = message_of(told[name]["error"])
        assert (message["id"], message["default_message"]) == (failure.identifier, failure.text)


ONLY_ON_THE_HOST = (".verify$task", ".rollback$task")  # tasks that no client can ask for


def identifiers():
    """All identifiers of the interface that stand whole in the package."""
    for path in (REPOSITORY / "helpers/tessel_lifecycle").glob("*.py"):
        for node in ast.walk(ast.parse(path.read_text())):
            if isinstance(node, ast.Constant) and re.fullmatch(r"com\.tessel\.[\w.$]*[\w$]", str(node.value)):
                yield node.value
    for command in (*cli.COMMANDS.values(), apply_cli.COMMAND):
        if command.operation and not command.operation.endswith(ONLY_ON_THE_HOST):
            yield command.operation


def test_identifiers_of_the_helpers_are_known_to_the_daemon(root):
    model = metamodel.load((REPOSITORY / "metadata").glob("*metamodel.json"))
    known = {*model.services, *model.structures, *model.errors, "com.tessel.orbi.std.security.user_pass"}
    known.update(f"{service}.{operation.name}" for service, entry in model.services.items()
                 for operation in entry.operations)
    messages = {str(uuid.uuid4()): name for name in set(identifiers()) - known}
    for identifier, name in messages.items():
        task.Task(identifier, "", ()).fail(errors.TaskError(name))
    texts = {messages[identifier]: message_of(info["error"])["default_message"]
             for identifier, info in root.call(TASKS, "list").items()}
    assert len(texts) > 5 and [name for name, text in texts.items() if text == "Unknown message."] == []


ONLY_OF_HELPERS = {"LIFECYCLE", "DESIRED", "REGISTERED_DEPOTS", "IMAGE", "METADATA", "EXTRACTED_DEPOTS",
                   "SEEN_INDEXES", "TRUST"}
MADE_OF_OTHERS = {"TASK_DATABASE", "TASK_HELPER"}


def test_paths_of_the_daemon_are_those_of_the_helpers():
    sources = [path for folder in ("daemon", "lifecycle", "lib", "platform", "software", "configuration")
               for path in (REPOSITORY / folder).rglob("*.*") if path.suffix in (".h", ".cpp")]
    of_daemon = {found.rstrip("/") for path in sources if not re.search("_test.cpp$|/testing/", str(path))
                 for found in re.findall(r'"(/(?:var|run|etc)/[^"\s]+)"', path.read_text())}
    of_helpers = {name: value for name, value in vars(paths).items() if name.isupper()}
    shared = {value for name, value in of_helpers.items() if name not in ONLY_OF_HELPERS | MADE_OF_OTHERS}
    assert shared <= of_daemon
    assert {path for path in of_daemon if path.startswith(paths.LIFECYCLE + "/")} <= shared


def test_locks_of_the_daemon_are_those_of_the_helpers(daemon, root, sample_depot):
    for service, operation, fields in ((SCAN, "scan$task", {"depots": [sample_depot], "software_spec": SPECIFICATION}),
                                       (SETTINGS, "set$task", {"depots": [sample_depot], "image": SPECIFICATION})):
        assert root.wait_for_task(root.call(service, operation, **fields), interval=0.02)["status"] == "SUCCEEDED"
    found = {name for line in daemon.log.lines[daemon.mark:]
             for name in re.findall(r"Lock acquired on socket\{([^}]*)\}", line)}
    assert found == {lock.lock_name(path)[1:].decode() for path in (paths.TASK_STATUS, paths.TASK_SYNC,
                                                                    paths.APPLY_PID)}


@pytest.mark.parametrize("claim, service, operation, fields", [
    (host_claim.TASK, "com.tessel.ryx.kestrel_daemon.configuration", "validate$task", {"document": "{}"}),
    (host_claim.APPLY, SETTINGS, "set$task", {"depots": ["/nowhere"], "image": SPECIFICATION})])
def test_both_refuse_a_task_alike_while_another_has_the_host(root, claim, service, operation, fields):
    pathlib.Path(claim.file).write_text(f"PRECURSOR: {uuid.uuid4()}")
    with pytest.raises(OrbiError) as by_daemon:
        root.call(service, operation, **fields)
    with pytest.raises(errors.TaskError) as by_helper:
        claim.take_over(str(uuid.uuid4()))
    assert by_daemon.value.message_ids == [by_helper.value.identifier]


def test_a_helper_that_lives_is_seen_to_live(start_daemon):
    record = {"status": "RUNNING", "operation": "com.tessel.ryx.kestrel_daemon.software.apply$task",
              "startTime": task.utc_now()}
    lives, died = str(uuid.uuid4()), str(uuid.uuid4())
    LIFECYCLE.mkdir(parents=True)
    (LIFECYCLE / "task-status.json").write_text(json.dumps({lives: record, died: record}))
    with lock.access_lock(paths.TASK_HELPER + lives, 0):
        told = start_daemon().client().call(TASKS, "list")
        assert (told[lives]["status"], told[died]["status"]) == ("RUNNING", "FAILED")
