"""The host's configuration: made again from an export, and whole whatever becomes of the daemon that applies one.

The daemon is killed at a few of its calls here; `--every-point` kills it at each of them, one after the other.
"""

import contextlib
import http.client
import json
import pathlib
import shutil
import signal
import sqlite3

import pytest

from fault_injection import KILL_DAEMON, NOTHING
from sandboxed_host import LIFECYCLE, MODULES, STATE, processes, wait_until
from orbi_client import OrbiError

CONFIGURATION = "com.tessel.ryx.kestrel_daemon.configuration"
KEYS = "com.tessel.ryx.configuration.components.groups.keys"
TASKS = "com.tessel.cis.tasks"
STORE = STATE / "configstore"
FILES = [pathlib.Path("/etc", name) for name in (
    "motd", "issue", "sysctl.d/60-kestreld.conf", "rsyslog.d/50-kestreld.conf",
    "systemd/timesyncd.conf.d/50-kestreld.conf")]


def document(text, number, **more):
    """A document that configures every module but the probe."""
    target = {"name": "central", "host": f"{text}.example.com", "port": number, "protocol": "tcp"}
    setting = {"name": "net.ipv4.ip_local_port_range", "value": f"{number} 60999"}
    return {"profile": {
        "system": {"banner": {"motd": {"text": text + "\n"}}}, "logging": {"remote": {"targets": [target]}},
        "kernel": {"sysctl": {"settings": [setting]}},
        "time": {"ntp": {"servers": {"server": [text], "enabled": True}}},
        **more}}


OLD, NEW = document("old", 20001), document("new", 30003)
NEW["profile"]["system"]["banner"]["issue"] = {"text": "new\n"}


class Host:
    """The configuration of the host that a daemon runs on."""

    def __init__(self, daemon):
        self.daemon, self.client = daemon, daemon.client()

    def run(self, operation, service=CONFIGURATION, **fields):
        """The record of a task at its end. It is not called for meanwhile: checking passwords takes time."""
        task = self.client.call(service, operation + "$task", **fields)
        wait_until(lambda: "endTime" in records()[task], what="an end")
        return self.client.call(TASKS, "get", task=task)

    def check(self, wanted):
        return self.run("check_apply", document=json.dumps(wanted))["result"]["spec_id"]

    def apply(self, wanted):
        done = self.run("apply", spec_id=self.check(wanted))
        assert (done["status"], done.get("result")) == ("SUCCEEDED", {"messages": []}), done

    def complies(self, wanted):
        return self.run("check_compliance", document=json.dumps(wanted))["result"]["status"] == "COMPLIANT"

    def export(self):
        return json.loads(self.client.call(CONFIGURATION, "export")["document"])


def records():
    return json.loads((LIFECYCLE / "task-status.json").read_text())


def files():
    """Their texts, but for comments: these tell what the running kernel had before, too."""
    texts = (path.exists() and path.read_text().splitlines() for path in FILES)
    return [text and [line for line in text if not line.startswith("#")] for text in texts]


def stored():
    """What stands in the store, which has to be whole."""
    with sqlite3.connect(STORE / "store.db") as database:
        assert database.execute("PRAGMA integrity_check").fetchone() == ("ok",)
        rows = dict(((component, key), value) for component, key, value in database.execute(
            "SELECT component, key, value FROM entries"))
    database.close()
    return rows


@pytest.fixture
def probe():
    """A module that does what is written to its file "behaviour", a path."""
    shutil.copytree(pathlib.Path(__file__).with_name("apply_modules") / "probe", MODULES / "probe")
    description = MODULES / "probe/module.json"
    description.write_text(description.read_text().replace('"timeout_seconds": 2', '"timeout_seconds": 600'))
    yield MODULES / "probe/behaviour"
    shutil.rmtree(MODULES / "probe")


def test_an_export_makes_the_host_the_same_again(start_daemon):
    first = Host(start_daemon())
    untouched = files()
    first.apply(NEW)
    exported, made = first.export(), files()
    assert first.daemon.stop() == 0 and made != untouched
    shutil.rmtree(STORE)
    for path in FILES:
        path.unlink()
    again = Host(start_daemon())
    assert not again.complies(NEW)
    again.apply(exported)
    assert again.complies(NEW) and files() == made and again.export() == exported


def test_enormous_documents_are_judged(daemon):
    host = Host(daemon)
    strange = {"profile": {f"component{number}": {"group": {"key": {"x": 1}}} for number in range(40000)}}
    assert 1_900_000 < len(json.dumps(strange)) < 2_400_000
    (*told, last) = host.run("validate", document=json.dumps(strange))["result"]["errors"]
    assert told[-1]["messages"][0]["id"] == "com.tessel.ryx.settings.validation.schema.not-found"
    assert last["messages"][0]["id"] == "com.tessel.ryx.settings.validation.more"
    assert last["messages"][0]["args"] == [str(40000 - len(told))] and 10_000 < len(json.dumps(told)) < 400_000
    deep = host.run("validate", document='{"profile":' * 500 + "1" + "}" * 500)
    assert "configuration.parse.error" in json.dumps(deep["error"])


def test_one_task_at_a_time_tells_how_far_it_is(daemon, probe):
    host = Host(daemon)
    gate = probe.with_name("gate")
    gate.touch()
    probe.write_text(f"import time\nwhile os.path.exists({str(gate)!r}): time.sleep(0.01)\n")
    task = host.client.call(CONFIGURATION, "impact$task", document=json.dumps(OLD))
    for service, operation, fields in (
            (CONFIGURATION, "validate$task", {"document": "{}"}),
            (KEYS, "delete$task", {"component": "system", "group": "banner", "key": "motd"}),
            ("com.tessel.ryx.kestrel_daemon.software", "scan$task",
             {"depots": ["http://localhost:1/"], "software_spec": {"base_image": {"version": "1"}, "components": {}}})):
        with pytest.raises(OrbiError) as refusal:
            host.client.call(service, operation, **fields)
        assert refusal.value.message_ids == ["com.tessel.ryx.task.contention"]
    seen = [host.client.call(TASKS, "get", task=task)["progress"]["completed"]]
    gate.unlink()
    host.client.wait_for_task(task, lambda info: seen.append(info["progress"]["completed"]), interval=0.01)
    assert 10 <= seen[0] < 90 and seen == sorted(seen) and seen[-1] == 100


def state():
    """Files and keys by name."""
    return dict(zip(FILES, files())) | stored()


def killed(host, spec, start_daemon):
    """Has the daemon apply what is to kill it. Returns the host under the next one, which runs no task of the first."""
    with contextlib.suppress(OSError, http.client.HTTPException):
        host.client.call(CONFIGURATION, "apply$task", spec_id=spec)
    assert host.daemon.process.wait(30) == -signal.SIGKILL
    host = Host(start_daemon())
    assert {record["status"] for record in records().values()} <= {"SUCCEEDED", "FAILED"}
    assert not (LIFECYCLE / "lifecycle.task").exists()
    return host


def test_a_daemon_killed_at_any_call_leaves_old_or_new(breaker, start_daemon, points):
    host, states = Host(start_daemon()), []
    for wanted in (OLD, NEW):
        spec = host.check(wanted)
        breaker.plan(KILL_DAEMON)
        assert host.run("apply", spec_id=spec)["status"] == "SUCCEEDED"
        count = breaker.calls()[0]
        states.append(state())
    old, new = states
    for point in points(count, 6):
        breaker.plan(NOTHING)
        host.apply(OLD)
        assert state() == old, point
        spec = host.check(NEW)
        breaker.plan(KILL_DAEMON, worker_at=point)
        host = killed(host, spec, start_daemon)
        now = state()
        assert all(now.get(name) in (old.get(name), new.get(name)) for name in {*now, *old, *new}), point
        host.apply(NEW)
        assert host.complies(NEW) and state() == new, point
    print(f"{len(points(count, 6))} of {count} calls")


@pytest.mark.parametrize("moment", [
    "operation == 'read' and die()", "operation == 'impact' and die()", "operation == 'apply' and die()",
    "operation == 'apply' and atexit.register(die)", "operation == 'apply' and (die(), time.sleep(600))"])
def test_a_daemon_killed_while_a_module_works_leaves_old_or_new(start_daemon, probe, moment):
    host = Host(start_daemon())
    old, new = ([{"name": name}] for name in ("old", "new"))
    before, after = (document(many[0]["name"], 20001, probe={"all": {"many": many}}) for many in (old, new))
    host.apply(before)
    spec = host.check(after)
    probe.write_text("import atexit, time\ndef die(): os.kill(os.getppid(), 9)\n" + moment)
    host = killed(host, spec, start_daemon)
    wait_until(lambda: not processes("probe/configure"), what="the end of the module's program")
    probe.unlink()
    assert host.export()["profile"]["probe"]["all"]["many"] in (old, new)
    host.apply(after)
    assert host.complies(after) and not list(pathlib.Path("/etc").rglob("*.kestreld-*"))


@pytest.mark.parametrize("asked_to_end", ["", "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"], ids=["ends", "stays"])
def test_stopping_while_a_module_works_aborts_the_task(start_daemon, probe, asked_to_end):
    host = Host(start_daemon())
    host.apply(OLD)
    old, gate = state(), probe.with_name("gate")
    spec = host.check(document("new", 30003, probe={"all": {"many": []}}))
    probe.write_text(f"import signal, time\n{asked_to_end}"
                     f"operation == 'apply' and (os.fork(), open({str(gate)!r}, 'w'), time.sleep(600))")
    task = host.client.call(CONFIGURATION, "apply$task", spec_id=spec)
    wait_until(gate.exists, what="a module at its work")
    assert host.daemon.stop() == 0
    record = records()[task]
    assert record["status"] == "FAILED" and "com.tessel.ryx.task.aborted" in json.dumps(record)
    assert not processes("probe/configure")
    assert not any("did not respond" in line for line in host.daemon.log.lines[host.daemon.mark:])
    now = state()
    assert now.keys() == old.keys()  # what was done before the probe stays, the file and the key
    assert {name for name in now if now[name] != old[name]} == {
        *FILES[2:4], ("kernel", "settings"), ("logging", "targets")}
