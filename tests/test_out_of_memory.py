"""Allocations that fail, each of a request's: one connection may end, the daemon goes on."""

import contextlib
import http.client
import itertools
import mmap
import pathlib
import struct
import subprocess

import pytest

from sandboxed_host import PORT, is_instrumented, wait_until
from orbi_client import Client, envelope
from test_bad_requests import open_files
from test_callers import issue_ticket

INTROSPECTION = "com.tessel.orbi.std.introspection.service"
TASKS = "com.tessel.cis.tasks"
DEPOTS = "com.tessel.ryx.host_settings.depots"
STREAM = {"Accept": "application/vnd.tessel.orbi.stream.json"}
tickets, callers = itertools.count(1), itertools.count(1)


class Plan:
    """What the preloaded library does."""

    def __init__(self, path):
        path.write_bytes(bytes(12))
        with open(path, "r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 12)

    @contextlib.contextmanager
    def failing(self, number, only_cpp):
        self._memory[:] = struct.pack("3i", number, 0, only_cpp)
        yield
        self._memory[:4] = bytes(4)

    def count(self):
        return struct.unpack("3i", self._memory[:])[1]


@pytest.fixture
def plan(tmp_path, monkeypatch):
    if is_instrumented():
        pytest.skip("sanitizers bring an allocator of their own")
    library = tmp_path / "failing_allocations.so"
    source = pathlib.Path(__file__).with_name("failing_allocations.c")
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, source], check=True)
    monkeypatch.setenv("LD_PRELOAD", str(library))
    monkeypatch.setenv("ALLOCATION_PLAN", str(tmp_path / "plan"))
    return Plan(tmp_path / "plan")


def with_ticket():
    text = f"ticket-of-a-poor-daemon-{next(tickets)}"
    issue_ticket(text)
    return text, text


def nobody():
    return None, None


def right_password():
    return "root", "kestrel"


def wrong_password():
    return "root", "wrong"


@pytest.mark.parametrize("service, credentials, size", [
    (INTROSPECTION, nobody, 0), (INTROSPECTION, nobody, 100000), (TASKS, with_ticket, 0), (TASKS, right_password, 0),
    (TASKS, wrong_password, 0), (DEPOTS, with_ticket, 0)],
                         ids=["in memory", "long", "ticket", "password", "wrong password", "helper"])
def test_each_allocation_of_a_request_may_fail(plan, trusted_front, start_daemon, service, credentials, size):
    daemon = start_daemon()
    only_cpp = service == TASKS  # whose credentials may go to PAM

    def answer():
        """The outcome of a call, None when its connection ended instead."""
        call = envelope(service, "list", {}, *credentials())
        call["id"] = "x" * size
        # Wrong passwords shut out whom they come from: here each comes from somebody else.
        address = f"2001:db8:0:{next(callers):x}::1"
        with contextlib.closing(Client(port=PORT, timeout=20, forwarded_for=address)) as client, contextlib.suppress(
                http.client.RemoteDisconnected, http.client.IncompleteRead, ConnectionError):
            response, _ = client.post(call, STREAM if size else None)
            return response.status, response.getheader("orbi-error")

    def break_each():
        outcomes = set()
        for number in itertools.count(1):
            with plan.failing(number, only_cpp):
                outcomes.add(answer())
            assert daemon.process.poll() is None, f"ended by allocation {number}"
            assert daemon.client().call(TASKS, "list") == {}
            if plan.count() < number:
                assert number > 40 and len(outcomes) > 1
                return

    break_each()  # also what is made with the first call
    files = open_files(daemon)
    break_each()
    wait_until(lambda: open_files(daemon) <= files, what="the end of all connections")
