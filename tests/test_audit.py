"""Who acted, as the log and the records tell."""

import pytest

from orbi_client import Client, OrbiError, envelope
from sandboxed_host import PORT, wait_until
from test_callers import TASKS


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
