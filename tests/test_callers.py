"""Who may call, and what callers who may not are told."""

import concurrent.futures
import json
import os
import pathlib
import time

import pytest

from sandboxed_host import PORT, wait_until
from orbi_client import Client, OrbiError, envelope

ERRORS = "com.tessel.orbi.std.errors."
TICKETS = pathlib.Path("/run/tessel/tickets")
TASKS = "com.tessel.cis.tasks"


def issue_ticket(text, service="Lifecycle", config="kestreld", user=""):
    TICKETS.mkdir(parents=True, exist_ok=True, mode=0o700)
    path = TICKETS / f"rntkt-{text}"
    path.write_bytes(text.encode() + b"\n" + config.encode() + b"\0" + service.encode() + b"\0" + user.encode() + b"\0")
    path.chmod(0o600)
    return path


def error_of(call):
    with pytest.raises(OrbiError) as error:
        call()
    return error.value.identifier.removeprefix(ERRORS), error.value.message_ids


@pytest.mark.parametrize("user, password, allowed", [
    ("root", "kestrel", True), ("alice", "kestrel", True),   # in the group kestreld-admin
    ("mallory", "kestrel", False),                           # right password, no rights
    ("root", "wrong", False), ("nobody-here", "kestrel", False), ("root", "", False), ("", "kestrel", False),
    ("root\x00x", "kestrel", False), ("root", "kestrel\x00x", False), ("r\u00f6\u00f6t", "kestrel", False)])
def test_passwords_are_checked_by_pam(daemon, user, password, allowed):
    client = daemon.client(user, password)
    if allowed:
        assert client.call(TASKS, "list") == {}
    else:
        assert error_of(lambda: client.call(TASKS, "list")) == (
            "unauthenticated", ["com.tessel.orbi.std.unauthenticated"])
    assert not any("kestrel\x00" in line or " kestrel " in line for line in daemon.log.lines[daemon.mark:])


def test_calls_without_usable_credentials_are_refused(daemon):
    call = envelope(TASKS, "list", {}, "root", "kestrel")
    call["params"]["ctx"]["securityCtx"]["schemeId"] = "com.example.other"
    for unusable in (call, envelope(TASKS, "list", {}, None, None)):
        response, body = Client(port=PORT).post(unusable)
        assert (response.status, response.getheader("orbi-error")) == (200, ERRORS + "unauthenticated")
        assert ERRORS + "unauthenticated" in json.loads(body)["result"]["error"]


DEPOTS = "com.tessel.ryx.host_settings.depots"
DESCRIBED = "com.tessel.orbi.metadata.metamodel.service"
BOUND = "com.tessel.orbi.std.introspection."
HOST_SCOPED = {f"com.tessel.ryx.{method}" for method in (
    "host_settings.depots.list", "host_settings.depots.create", "host_settings.depots.delete",
    "host_settings.software.get", "host_settings.software.set",
    "host_settings.software.ryx.get", "host_settings.software.ryx.set",
    "host_settings.software.components.get", "host_settings.software.components.set",
    "host_settings.software.components.delete",
    "hosts.software.ryx.get", "hosts.software.components.get", "hosts.software.components.list")}


def test_the_api_describes_itself_to_anybody(daemon):
    client = Client(port=PORT)
    services = client.call(DESCRIBED, "list")
    assert client.call(BOUND + "service", "list") == services
    assert len([name for name in services if name.startswith(("com.tessel.ryx.", "com.tessel.cis."))]) == 18
    for service in services:
        operations = client.call(DESCRIBED, "get", id=service)["operations"]
        assert client.call(BOUND + "operation", "list", service_id=service) == [each["name"] for each in operations]
        for described in operations:
            bound = client.call(BOUND + "operation", "get", service_id=service, operation_id=described["name"])
            assert [(field["name"], field["type"]) for field in bound["input"]] == [
                (field["name"], field["type"]) for field in described["input"]]
            assert (bound["any_input"], bound["output"], set(bound["errors"])) == (
                described["any_input"], described["output"]["type"], set(described["errors"]))


@pytest.mark.parametrize("service, operation, fields, error, message", [
    ("com.tessel.none", "get", {}, "operation_not_found", "orbi.provider.interface.unknown"),
    (DEPOTS, "delete", {}, "invalid_argument", "orbi.data.structure.field.missing"),
    (DEPOTS, "list", {"x": "x"}, "invalid_argument", "orbi.data.structure.field.extra"),
    (DESCRIBED, "get", {}, "invalid_argument", "orbi.data.structure.field.missing"),
    (DESCRIBED, "get", {"id": "x"}, "not_found", "orbi.metadata.identifier.unknown")])
def test_calls_that_cannot_be_served_say_why(root, service, operation, fields, error, message):
    assert error_of(lambda: root.call(service, operation, **fields)) == (error, [message])


def test_what_is_no_description_needs_credentials_and_the_local_host(root):
    client = Client(port=PORT)
    refusing = set()
    for service in client.call(DESCRIBED, "list"):
        if service.startswith("com.tessel.orbi."):
            continue
        for operation in client.call(BOUND + "operation", "list", service_id=service):
            assert error_of(lambda: client.call(service, operation))[0] == "unauthenticated"
            if "com.tessel.ryx.host.invalid" in error_of(lambda: root.call(service, operation, host="node7"))[1]:
                refusing.add(f"{service}.{operation}")
    assert refusing == HOST_SCOPED


def test_one_wrong_password_does_not_stall_the_others(daemon):
    good = daemon.client()
    good.call(TASKS, "list")
    began = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(5) as pool:
        refused = [pool.submit(lambda: error_of(lambda: daemon.client("root", "wrong").call(TASKS, "list")))
                   for _ in range(5)]
        assert good.call(TASKS, "list") == {}
        assert {future.result()[0] for future in refused} == {"unauthenticated"}
    # PAM's own delay would be two seconds for each: this bound is a stall, not a speed.
    assert time.monotonic() - began < 5


def test_a_ticket_is_good_for_one_call(daemon):
    text = "0123456789abcdef"
    path = issue_ticket(text)
    client = daemon.client(text, text)
    assert client.call(TASKS, "list") == {}
    assert not path.exists()
    assert error_of(lambda: client.call(TASKS, "list"))[0] == "unauthenticated"


def test_a_ticket_works_once_even_when_requests_race(daemon):
    for attempt in range(10):
        text = f"race-{attempt:016d}"
        issue_ticket(text)

        def call(_, text=text):
            try:
                daemon.client(text, text).call(TASKS, "list")
                return True
            except OrbiError:
                return False

        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            assert sum(pool.map(call, range(8))) == 1


@pytest.mark.parametrize("text, service", [
    ("fifteen-letters", "Lifecycle"), ("../../../etc/passwd", "Lifecycle"), ("0123456789abcde\u00e9", "Lifecycle"),
    ("foreign-service-ticket", "Other"), ("x" * 256, "Lifecycle")])
def test_bad_tickets_are_refused(daemon, text, service):
    if "/" not in text and len(text) < 200:
        issue_ticket(text, service)
    client = daemon.client(text, text)
    assert error_of(lambda: client.call(TASKS, "list"))[0] == "unauthenticated"


def test_stale_tickets_are_removed_at_start(start_daemon):
    stale, fresh = issue_ticket("stale-ticket-0000"), issue_ticket("fresh-ticket-0000")
    eleven_minutes_ago = time.time() - 11 * 60
    os.utime(stale, (eleven_minutes_ago, eleven_minutes_ago))
    start_daemon()
    wait_until(lambda: not stale.exists(), what="the reaper")
    assert fresh.exists()


@pytest.mark.parametrize("host, allowed", [
    ("localhost", True), (None, True), ({"OPTIONAL": "localhost"}, True), ({"OPTIONAL": None}, True),
    ("LOCALHOST", False), ("127.0.0.1", False), ("node7", False), ({"OPTIONAL": "node7"}, False),
    ("", False), ("localhost\x00", False), ({"SECRET": "localhost"}, False), (7, False)])
def test_only_the_local_host_can_be_meant(daemon, root, host, allowed):
    fields = {} if host is None else {"host": host}
    if allowed:
        assert root.call(DEPOTS, "list", **fields) == []
        return
    assert error_of(lambda: root.call(DEPOTS, "list", **fields)) == (
        "invalid_argument", ["com.tessel.ryx.host.invalid"])
    daemon.log.wait_for("Checking the host parameter value for method:com.tessel.ryx.host_settings.depots.list and "
                        "service:com.tessel.ryx.host_settings.depots", daemon.mark)
    daemon.log.wait_for(". It should be:localhost", daemon.mark)


def test_no_host_hides_in_an_optional_input(root):
    call = envelope(DEPOTS, "list", {"host": "node7"}, "root", "kestrel")
    call["params"]["input"] = {"OPTIONAL": call["params"]["input"]}
    assert b"com.tessel.ryx.host.invalid" in root.post(call)[1]
