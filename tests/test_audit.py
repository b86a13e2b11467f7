"""Who acted, as the log and the records tell."""

import json
import pathlib
import syslog

import pytest

from orbi_client import Client, OrbiError, envelope
from sandboxed_host import PORT, wait_until
from test_callers import TASKS, issue_ticket

CONFIGURATION = "com.tessel.ryx.kestrel_daemon.configuration"
SETTINGS = "com.tessel.ryx.hosts.settings"


def audit(daemon, part):
    """The audit lines with that part."""
    def found():
        return [line.partition("[Audit]: ")[2] for line in daemon.log.lines[daemon.mark:]
                if "[Audit]: " in line and part in line]
    wait_until(found, what=f"an audit line with {part}")
    return found()


def refused(call, *arguments, **fields):
    with pytest.raises(OrbiError):
        call(*arguments, **fields)


def test_each_authenticated_or_refused_call_is_told(daemon):
    alice = daemon.client("alice")
    alice.call(TASKS, "list")
    assert audit(daemon, "list") == [f"user=alice peer=uid:0@127.0.0.1 method={TASKS}.list outcome=ok task=-"]
    refused(alice.call, TASKS, "get", task="none")
    assert audit(daemon, "get") == [f"user=alice peer=uid:0@127.0.0.1 method={TASKS}.get outcome=not_found task=-"]
    for user, told in (("mallory", "mallory"), ("no\nbody \"x\"", '"no\\x0abody \\x22x\\x22"'), ("", '""'),
                       ("x" * 100, f'"{"x" * 64}..."')):
        refused(daemon.client(user, "wrong").call, TASKS, "cancel", task="none")
        assert audit(daemon, f"user={told} ") == [
            f"user={told} peer=uid:0@127.0.0.1 method={TASKS}.cancel outcome=unauthenticated task=-"]
    Client(port=PORT).post(envelope(TASKS, "list"))
    assert len(audit(daemon, "user=- ")) == 1
    Client(port=PORT).call("com.tessel.orbi.std.introspection.service", "list")
    assert not [line for line in daemon.log.lines[daemon.mark:] if "introspection" in line and "[Audit]" in line]


def test_floods_of_refused_calls_are_summed_up(trusted_front, daemon):
    flood = daemon.client("root", "wrong", forwarded_for="192.0.2.7")
    for _ in range(60):
        refused(flood.call, TASKS, "list")
    daemon.client("root", "kestrel", forwarded_for="192.0.2.8").call(TASKS, "list")  # is not locked out
    assert daemon.stop() == 0
    told = audit(daemon, "192.0.2.7")
    assert len(told) == 11 and told[-1] == "... and 50 more from 192.0.2.7 in the last minute"
    lines = daemon.log.lines[daemon.mark:]
    assert sum("authentication failed for user" in line for line in lines) == 10


def records():
    return json.loads(pathlib.Path("/var/tessel/lifecycle/task-status.json").read_text())


def test_tasks_are_their_callers(daemon, sample_depot):
    """Of the daemon's own, of a helper's, of those that a helper asks for with a ticket, and of a ticket by itself."""
    root, alice = daemon.client(), daemon.client("alice")
    validation = alice.call(CONFIGURATION, "validate$task", document="{}")
    assert root.wait_for_task(validation)["user"] == "alice"
    assert audit(daemon, validation) == [
        f"user=alice peer=uid:0@127.0.0.1 method={CONFIGURATION}.validate$task outcome=ok task={validation}"]
    assert (records()[validation]["user"], records()[validation]["peer"]) == ("alice", "uid:0@127.0.0.1")

    apply = alice.call(SETTINGS, "set$task", depots=[sample_depot], configuration={
        "metadata": {"schema_version": "1.0"}, "profile": {"system": {"banner": {"motd": {"text": "new\\n"}}}}})
    assert root.wait_for_task(apply)["user"] == "alice"
    asked = {task: record for task, record in records().items() if task not in (apply, validation)}
    assert asked and {record["user"] for record in asked.values()} == {"alice"}
    assert records()[apply]["peer"] == "uid:0@127.0.0.1"

    for number, (user, account) in enumerate((("bob", "bob"), ("", "root"))):
        ticket = f"ticket-on-behalf-of-{number}"
        issue_ticket(ticket, user=user)
        task = daemon.client(ticket, ticket).call(CONFIGURATION, "validate$task", document="{}")
        assert root.wait_for_task(task)["user"] == account
        assert f"user={account} " in audit(daemon, task)[0]


def test_lines_of_pam_go_to_its_facility(daemon):
    refused(daemon.client("mallory", "wrong").call, TASKS, "list")
    line = daemon.log.wait_for("pam_unix(kestreld:auth): authentication failure", daemon.mark)
    assert line.startswith(f"<{syslog.LOG_AUTHPRIV | syslog.LOG_NOTICE}>")
