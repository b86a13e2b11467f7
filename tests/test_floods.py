"""Callers without credentials who take all that they can get: another caller is answered, and nothing stays behind.

Each address of the test's network is a party of its own. KESTREL_FLOOD_SCALE multiplies the numbers of connections.
"""

import contextlib
import os
import pathlib
import resource
import socket
import subprocess
import time

import pytest

from sandboxed_host import PORT, is_instrumented, wait_until
from test_bad_requests import GOOD, HEAD, open_files, sized

SCALE = int(os.environ.get("KESTREL_FLOOD_SCALE", "1"))
SERVER = "198.51.100.1"
BODY = 2500000
MIB = 1 << 20


@pytest.fixture(scope="module", autouse=True)
def network():
    if is_instrumented():
        pytest.skip("a sanitizer's memory is no measure")
    subprocess.run(["ip", "address", "replace", f"{SERVER}/24", "dev", "lo"], check=True)


@pytest.fixture(autouse=True)
def descriptors():
    """So many that this process can hold all connections."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def resident(daemon):
    status = pathlib.Path(f"/proc/{daemon.process.pid}/status").read_text()
    return int(status.partition("VmRSS:")[2].split()[0]) * 1024


def connect(party):
    connection = socket.create_connection((SERVER, PORT), timeout=20, source_address=(f"198.51.100.{party}", 0))
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 65536)
    return connection


def others_are_answered():
    for party in (200, 201):
        with connect(party) as connection:
            connection.sendall(sized(GOOD))
            assert connection.recv(12) == b"HTTP/1.1 200"


def send_what_is_taken(connections, data, seconds):
    """Sends the data on all connections as long as they take any. Calls others meanwhile."""
    rest = {connection: memoryview(data) for connection in connections}
    deadline, moved = time.monotonic() + seconds, time.monotonic()
    while rest and time.monotonic() < deadline and time.monotonic() - moved < 0.5:
        for connection in list(rest):
            with contextlib.suppress(BlockingIOError):
                try:
                    rest[connection] = rest[connection][connection.send(rest[connection][:262144]):]
                    moved = time.monotonic()
                except ConnectionError:
                    del rest[connection]
                    continue
                if not rest[connection]:
                    del rest[connection]
        others_are_answered()


@contextlib.contextmanager
def leaving_nothing(daemon):
    """Of what happens meanwhile. After ten seconds the allocator keeps 16 MiB at most, beside the pages that the few
    bytes stand on which Boost.Asio keeps of each socket for the next."""
    others_are_answered()
    files, memory = open_files(daemon), resident(daemon)
    yield memory
    wait_until(lambda: open_files(daemon) <= files, what="the end of all connections")
    wait_until(lambda: resident(daemon) < memory + (20 + 4 * SCALE) * MIB, what="the end of what they held")
    others_are_answered()


@pytest.mark.parametrize("parties", [1, 5])
def test_bodies_hold_no_more_than_their_share(daemon, parties):
    resource.prlimit(daemon.process.pid, resource.RLIMIT_DATA, (400 * MIB, 400 * MIB))
    with leaving_nothing(daemon) as before, contextlib.ExitStack() as flood:
        connections = [flood.enter_context(connect(2 + number % parties)) for number in range(200 * SCALE)]
        for connection in connections:
            connection.setblocking(False)
        send_what_is_taken(connections, HEAD + b"Content-Length: %d\r\n\r\n" % BODY + b" " * (BODY - 1), 3)
        held = resident(daemon) - before
        # Those that wait hold what came with their heads.
        assert held < (16 if parties == 1 else 64) * MIB + len(connections) * 24 * 1024 + 8 * MIB


def test_bodies_that_stand_still_make_room_for_others(daemon):
    with leaving_nothing(daemon), contextlib.ExitStack() as flood:
        for number in range(40):
            connection = flood.enter_context(connect(2 + number % 5))
            connection.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % BODY)
        with connect(9) as other:
            long_body = GOOD + b" " * (BODY - len(GOOD))
            other.sendall(sized(long_body))
            assert other.recv(12) == b"HTTP/1.1 200"


@pytest.mark.parametrize("beginning", [b"P", sized(GOOD)[:-1], HEAD + b"Content-Length: 2000000\r\n\r\n{"],
                         ids=["heads", "bodies", "long bodies"])
def test_slow_requests_leave_room_for_others(start_daemon, beginning):
    daemon = start_daemon(descriptors=1024 * SCALE)
    resource.prlimit(daemon.process.pid, resource.RLIMIT_DATA, (400 * MIB, 400 * MIB))
    with leaving_nothing(daemon) as before, contextlib.ExitStack() as flood:
        for number in range(1000 * SCALE):
            connection = flood.enter_context(connect(2 + number % 6))
            with contextlib.suppress(ConnectionError):
                connection.sendall(beginning)
            if number % 50 == 0:
                others_are_answered()
        assert resident(daemon) - before < 1000 * SCALE * 24 * 1024
        assert open_files(daemon) < 1024 * SCALE - 200
