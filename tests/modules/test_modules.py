"""The shipped modules on a throw-away host: what they write, read, refuse and take back."""

import json
import os
import pathlib
import shutil
import signal
import subprocess

import pytest

from sandboxed_host import REPOSITORY, wait_until

MODULES = pathlib.Path("/usr/lib/tessel/configmanager/apply_modules")
GROUPS = {"time": "ntp", "system": "banner", "kernel": "sysctl", "logging": "remote"}
CASES = json.loads(pathlib.Path(__file__).with_name("cases.json").read_text())
# Component to changes (key, instance, value) and what files then hold.
SETTINGS = CASES["settings"]
FILES = {component: [pathlib.Path(name) for name in case["files"]] for component, case in SETTINGS.items()}
TIME, ISSUE = SETTINGS["time"]["changes"], FILES["system"][1]


def request(component, operation, changes=()):
    return json.dumps({"operation": operation, "component": component, "task_id": "", "changes": [
        {"group": GROUPS[component], "key": key, "id": instance, "action": "set", "old": None, "new": new}
        for key, instance, new in changes]})


def run(component, operation, changes=()):
    done = subprocess.run([MODULES / component / "configure"], capture_output=True, timeout=60, text=True,
                          input=request(component, operation, changes))
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def in_force(component):
    return {name.split("/")[1]: value for name, value in run(component, "read")["values"].items()}


def delete(component, changes):
    return run(component, "apply", [(key, instance, None) for key, instance, _ in changes])


def snapshot():
    """The files, and all that is kept beside them."""
    found = {}
    for path in (path for files in FILES.values() for file in files for path in file.parent.glob(file.name + "*")):
        content = os.readlink(path) if path.is_symlink() else path.read_bytes() if path.is_file() else None
        found[str(path)] = (path.lstat().st_mode, path.lstat().st_uid, content)
    return found


@pytest.fixture(autouse=True)
def nothing_left():
    ISSUE.chmod(0o640)
    before = snapshot()
    yield before
    if snapshot() != before:
        for component, case in SETTINGS.items():
            assert delete(component, case["changes"]) == {}
    assert snapshot() == before


@pytest.fixture
def systemd(tmp_path):
    """Has the host look as if systemd ran; gives what sets the commands that systemctl stands for."""
    pathlib.Path("/run/systemd/system").mkdir(parents=True)
    systemctl, script, log = pathlib.Path("/usr/bin/systemctl"), tmp_path / "systemctl", tmp_path / "calls"
    if not systemctl.exists():
        systemctl.touch()

    def behave(commands):
        log.write_text("")
        script.write_text(f"#!/bin/sh\necho \"$*\" >>{log}\n{commands}\n")
        return log
    behave("")
    script.chmod(0o755)
    subprocess.run(["mount", "--bind", script, systemctl], check=True)
    yield behave
    subprocess.run(["umount", systemctl], check=True)
    shutil.rmtree("/run/systemd")


@pytest.mark.parametrize("component", SETTINGS)
def test_settings_are_written_read_kept_and_taken_back(component):
    changes, files = SETTINGS[component].values()
    assert run(component, "validate", changes) == {"errors": []} and run(component, "apply", changes) == {}
    for file, text in files.items():
        assert text in pathlib.Path(file).read_text()
    assert ISSUE.stat().st_mode & 0o777 == 0o640
    values = in_force(component)
    for key, instance, new in changes:
        assert values[key] == new if instance is None else new in values[key]
    once = [(file.lstat().st_ino, file.read_bytes()) for file in FILES[component]]
    assert run(component, "apply", changes) == {}
    assert once == [(file.lstat().st_ino, file.read_bytes()) for file in FILES[component]]
    delete(component, changes[:1])
    values = in_force(component)
    assert values[changes[0][0]] is None or changes[0][2] not in values[changes[0][0]]


@pytest.mark.parametrize("component, key, instance, new, message", CASES["invalid"])
def test_validation_tells_what_the_schema_cannot(component, key, instance, new, message):
    run("logging", "apply", SETTINGS["logging"]["changes"][:1])
    (error,) = run(component, "validate", [(key, instance, new)])["errors"]
    assert " ".join([error["id"], *error["args"]]) == "com.tessel.modules." + message
    assert error["path"].startswith(f"/{component}/{GROUPS[component]}/{key}")


@pytest.mark.parametrize("component, key, instance, new, message", CASES["impossible"])
def test_what_cannot_be_done_changes_nothing(component, key, instance, new, message, nothing_left):
    (error,) = run(component, "apply", [SETTINGS[component]["changes"][1], (key, instance, new)])["errors"]
    assert error["id"] == "com.tessel.modules." + message
    assert snapshot() == nothing_left


@pytest.mark.parametrize("component, old, new, key, seen", CASES["drift"])
def test_drift_is_seen_and_repaired(component, old, new, key, seen):
    run(component, "apply", SETTINGS[component]["changes"])
    file = FILES[component][0]
    written = file.read_text()
    file.write_text(new.join(written.rsplit(old, 1)), errors="surrogateescape")
    assert in_force(component)[key] == seen
    run(component, "apply", SETTINGS[component]["changes"])
    assert file.read_text() == written


def test_systemd_is_told_and_what_it_does_not_take_is_taken_back(systemd, nothing_left):
    unit = "systemd-timesyncd.service"
    enabled = [("servers", None, TIME[0][2] | {"enabled": True}), TIME[1]]
    for script, changes, told in [
            ('[ "$1" != is-active ]', enabled, ["is-active"]),
            ("", enabled, ["is-active", "restart"]),
            ('[ "$1" != is-enabled ]', TIME, ["daemon-reload", "is-enabled", "is-active", "stop"]),
            ("", enabled, ["daemon-reload", "is-enabled", "restart"])]:
        log = systemd(script)
        assert run("time", "apply", changes) == {}
        assert [line.split()[0] for line in log.read_text().splitlines()] == told
    systemd("")
    delete("time", TIME)
    systemd('[ "$1" != daemon-reload ] || { echo busy >&2; exit 1; }')
    (error,) = run("time", "apply", TIME)["errors"]
    assert (error["id"], error["args"]) == ("com.tessel.modules.service", [unit, "busy"])
    assert snapshot() == nothing_left
    systemd("")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_a_program_that_is_ended_leaves_the_old_or_the_new(number, systemd, nothing_left):
    log = systemd("sleep 60")
    process = subprocess.Popen([MODULES / "time/configure"], stdin=subprocess.PIPE, start_new_session=True)
    process.stdin.write(request("time", "apply", TIME).encode())
    process.stdin.close()
    wait_until(log.read_text, what="a call of systemctl")
    os.killpg(process.pid, number)
    assert process.wait(20) != 0
    assert snapshot() == nothing_left or in_force("time") == {"servers": TIME[0][2], "profiles": [TIME[1][2]]}
    assert number == signal.SIGKILL or snapshot() == nothing_left
    systemd("")
    run("time", "apply", TIME)


def test_what_is_wrong_with_a_call_or_an_installation_is_told(tmp_path):
    shutil.copytree(MODULES / "time", tmp_path / "time")
    for program, given, told in [(tmp_path, "", "cannot be loaded"), (MODULES, "{", "JSONDecodeError"),
                                 (MODULES, request("time", "dance"), "dance"), (MODULES, "[]", "TypeError")]:
        done = subprocess.run([program / "time/configure"], input=given, capture_output=True, text=True, timeout=60)
        assert done.returncode == 1 and done.stdout == "" and told in done.stderr and done.stderr.count("\n") == 1


def test_the_example_works_as_the_guide_tells(root):
    shutil.copytree(REPOSITORY / "docs/examples/shell", MODULES / "shell")
    try:
        for block in (REPOSITORY / "docs/configuration-modules.md").read_text().split("```console\n$ ")[1:]:
            for step in block.split("\n```")[0].split("\n$ "):
                command, output = step.split("\n", 1)
                done = subprocess.run(["bash", "-c", command], cwd=MODULES / "shell", capture_output=True, text=True)
                assert done.stdout.rstrip("\n") == output, command
        key = {"component": "shell", "group": "timeout", "key": "idle"}
        service = "com.tessel.ryx.configuration.components.groups.keys"
        for operation, value, there in [("set$task", {"value": {"seconds": 60}}, True), ("delete$task", {}, False)]:
            task = root.call(service, operation, **key, **value)
            assert root.wait_for_task(task)["status"] == "SUCCEEDED"
            assert os.path.exists("/etc/profile.d/60-shell-timeout.sh") == there
    finally:
        shutil.rmtree(MODULES / "shell")
