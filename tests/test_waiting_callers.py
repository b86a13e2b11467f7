"""Callers that wait, and others that must not wait for them."""

import concurrent.futures
import itertools
import json
import random
import socket
import threading
import time

import pytest

from orbi_client import OrbiError, envelope
from sandboxed_host import BINARIES, PORT, processes, wait_until
from test_callers import issue_ticket

TASKS = "com.tessel.cis.tasks"
DEPOTS = "com.tessel.ryx.host_settings.depots"
METAMODEL = "com.tessel.orbi.metadata.metamodel.service"
OTHERS = "192.0.2.7"
tickets = itertools.count()

pytestmark = pytest.mark.usefixtures("trusted_front")


@pytest.fixture
def helper():
    """Puts a script in place of the inline helpers: while `held` is there, they do not end."""
    command = BINARIES / "imagemanagerctl.py"
    original, held = command.read_text(), BINARIES / "held"
    held.touch()
    command.write_text(f"import os, time\nwhile os.path.exists({str(held)!r}): time.sleep(0.02)\nprint('[]')\n")
    yield held
    held.unlink(missing_ok=True)
    command.write_text(original)


class Callers:
    """Callers at one address, each with a connection and a ticket of its own."""

    def __init__(self, daemon, address):
        self._daemon, self._address = daemon, address
        self._pool = concurrent.futures.ThreadPoolExecutor(100)

    def list_depots(self):
        """Starts a call; the result tells its answer."""
        ticket = f"ticket-of-a-waiting-caller-{next(tickets)}"
        issue_ticket(ticket)
        client = self._daemon.client(ticket, ticket, forwarded_for=self._address)
        return self._pool.submit(client.call, DEPOTS, "list")


def helpers_running():
    return len(processes("imagemanagerctl.py"))


def test_a_caller_with_many_calls_leaves_threads_to_others(daemon, helper):
    greedy, other = Callers(daemon, OTHERS), Callers(daemon, "192.0.2.8")
    waiting = [greedy.list_depots() for _ in range(10)]
    wait_until(lambda: helpers_running() == 4, what="helpers on half of the threads")
    client = daemon.client()
    assert client.call(TASKS, "list") == {}
    others = other.list_depots()
    wait_until(lambda: helpers_running() == 5, what="the other's helper")
    helper.unlink()
    assert [call.result(30) for call in (*waiting, others)] == [[]] * 11


def test_calls_that_find_no_place_are_told_to_come_again(daemon, helper):
    greedy = Callers(daemon, OTHERS)
    waiting = [greedy.list_depots() for _ in range(80)]
    wait_until(lambda: sum(call.done() for call in waiting) >= 12, what="refusals")
    assert daemon.client().call(TASKS, "list") == {}
    helper.unlink()
    refused = [call.exception(60) for call in waiting if call.exception(60)]
    assert len(refused) == 12  # four run, and 64 wait
    for error in refused:
        assert isinstance(error, OrbiError)
        assert (error.identifier.rpartition(".")[2], error.message_ids) == (
            "service_unavailable", ["orbi.provider.overloaded"])


def test_a_caller_that_has_gone_costs_nothing(daemon, helper):
    """Its operation goes on, and nobody gets its answer."""
    body = json.dumps(envelope(DEPOTS, "list", {}, "root", "kestrel")).encode()
    request = (b"POST /api HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n" % len(body)) + body
    for _ in range(3):
        with socket.create_connection(("127.0.0.1", PORT)) as gone:
            gone.sendall(request)
    wait_until(lambda: helpers_running() == 3)
    helper.unlink()
    wait_until(lambda: helpers_running() == 0)
    assert daemon.client().call(DEPOTS, "list") == []


@pytest.mark.parametrize("stubborn", [False, True])
def test_a_stop_does_not_wait_for_what_callers_wait_for(daemon, helper, stubborn):
    """Helpers are ended; one that does not heed that is left behind."""
    if stubborn:
        command = BINARIES / "imagemanagerctl.py"
        command.write_text("import signal\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n" + command.read_text())
    callers = [Callers(daemon, address) for address in (OTHERS, "192.0.2.8")]
    waiting = [caller.list_depots() for caller in callers for _ in range(8)]
    wait_until(lambda: helpers_running() == 8)
    if stubborn:
        time.sleep(1)  # until each has come to ignore the signal
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert (time.monotonic() - begin > 5) is stubborn
    assert time.monotonic() - begin < 7  # six, and the second that ThreadSanitizer takes to exit
    assert helpers_running() == (8 if stubborn else 0)
    assert all(call.exception(10) for call in waiting)


def test_wrong_passwords_of_one_address_do_not_keep_others_out(daemon):
    stop = threading.Event()

    def guess():
        guesser = daemon.client("nobody-here", "guess", forwarded_for=OTHERS)
        while not stop.is_set():
            with pytest.raises(OrbiError):
                guesser.call(TASKS, "list")

    with concurrent.futures.ThreadPoolExecutor(20) as pool:
        guesses = [pool.submit(guess) for _ in range(20)]
        client = daemon.client()
        for _ in range(20):
            assert client.call(TASKS, "list") == {}
        stop.set()
        for done in guesses:
            done.result(30)


def operations(client):
    """Every operation: service, name, and the names and types of its input's fields."""
    for service in client.call(METAMODEL, "list"):
        for operation in client.call(METAMODEL, "get", id=service)["operations"]:
            yield service, operation["name"], [(field["name"], field["type"]) for field in operation["input"]]


VALUES = {"string": "none", "boolean": True, "optional<string>": "none", "optional<boolean>": False, "list<string>": [],
          "map<string, string>": {}, "optional<map<string, string>>": {}}


def test_any_operations_at_once(daemon, request):
    """Callers call what comes to their mind, often for something that is not there, and every call has an answer."""
    everything = list(operations(daemon.client()))
    end = time.monotonic() + request.config.getoption("--stress")
    seed = random.randrange(1 << 32)

    def work(number):
        client = daemon.client(forwarded_for=f"198.51.100.{number + 1}")
        choose, answers = random.Random(seed + number), set()
        while time.monotonic() < end:
            service, operation, fields = choose.choice(everything)
            given = {name: VALUES.get(kind, {}) for name, kind in fields}
            response, body = client.post(envelope(service, operation, given, "root", "kestrel"))
            assert response.status == 200, (seed, service, operation, body)
            assert json.loads(body)["result"].keys() <= {"output", "error"}, (seed, service, operation, body)
            answers.add((service, operation))
        return answers

    with concurrent.futures.ThreadPoolExecutor(32) as pool:
        called = set().union(*pool.map(work, range(32)))
    assert len(called) > len(everything) // 2
