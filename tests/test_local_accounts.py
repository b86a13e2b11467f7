"""What an account of the host without any rights can do to the daemon and its helpers: nothing."""

import contextlib
import os
import pathlib
import socket
import subprocess
import sys

import pytest

from sandboxed_host import BINARIES, PORT, REPOSITORY

sys.path.insert(0, str(REPOSITORY / "helpers"))

from tessel_lifecycle import daemon_client, own_port, paths

TASKS = "com.tessel.cis.tasks"
MALLORY = 1001
V4, V6 = socket.AF_INET, socket.AF_INET6


@pytest.fixture
def others():
    """Makes sockets that belong to another account."""
    def give_away(socket):
        os.fchown(socket.fileno(), MALLORY, MALLORY)
        return socket

    with socket.socket() as probe:
        try:
            give_away(probe)
        except OSError:
            pytest.skip("there is one account only in this user namespace; as root there are more")
    return give_away


def listener(family, address, port=0, *options):
    made = socket.socket(family, socket.SOCK_STREAM)
    for level, option, value in options:
        made.setsockopt(level, option, value)
    made.bind((address, port))
    made.listen()
    return made


TWIN = (socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
ONLY_6 = (socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
BOTH = (socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
OURS, THEIRS = True, False
LISTENERS = {  # who listens where, and the address that a helper connects to; none when it refuses
    "the daemon's two": ([(OURS, V4, "0.0.0.0"), (OURS, V6, "::", ONLY_6)], "127.0.0.1"),
    "one address": ([(OURS, V4, "127.0.0.1")], "127.0.0.1"),
    "one address of the other family": ([(OURS, V6, "::1")], "::1"),
    "both families in one": ([(OURS, V6, "::", BOTH)], "127.0.0.1"),
    "another address": ([(OURS, V4, "127.0.0.2")], None),
    "nobody": ([], None),
    "all by a stranger": ([(THEIRS, V4, "0.0.0.0"), (THEIRS, V6, "::", ONLY_6)], None),
    "one address by a stranger": ([(THEIRS, V4, "127.0.0.1")], None),
    "IPv4 by a stranger": ([(THEIRS, V4, "0.0.0.0"), (OURS, V6, "::", ONLY_6)], "::1"),
    "IPv4 loopback by a stranger": ([(THEIRS, V4, "127.0.0.1"), (OURS, V6, "::", ONLY_6)], "::1"),
    "IPv6 by a stranger": ([(OURS, V4, "0.0.0.0"), (THEIRS, V6, "::", ONLY_6)], "127.0.0.1"),
    "both families in one by a stranger": ([(THEIRS, V6, "::", BOTH)], None),
    "mapped by a stranger": ([(THEIRS, V6, "::ffff:127.0.0.1", BOTH)], None),
    "twins": ([(OURS, V4, "0.0.0.0", TWIN), (OURS, V4, "0.0.0.0", TWIN)], "127.0.0.1"),
    "a twin by a stranger": ([(OURS, V4, "0.0.0.0", TWIN), (THEIRS, V4, "0.0.0.0", TWIN)], None),
    "a more exact twin by a stranger": ([(OURS, V4, "0.0.0.0", TWIN), (THEIRS, V4, "127.0.0.1", TWIN)], None),
}


@pytest.mark.parametrize("case", LISTENERS)
def test_helpers_connect_to_sockets_of_their_own_user_only(others, case):
    sockets, expected = LISTENERS[case]
    with contextlib.ExitStack() as stack:
        with socket.create_server(("", 0)) as probe:
            port = probe.getsockname()[1]
        for ours, family, address, *options in sockets:
            made = stack.enter_context(listener(family, address, port, *options))
            made if ours else others(made)
        if expected is None:
            with pytest.raises(ConnectionError) as error:
                own_port.connect(port, 5)
            assert isinstance(error.value, own_port.Stranger) == any(not ours for ours, *_ in sockets)
        else:
            with own_port.connect(port, 5) as connection:
                assert connection.getpeername()[0] == expected


def test_a_listener_that_changes_while_a_helper_connects_is_refused(monkeypatch):
    def connect(*arguments):
        connection = create_connection(*arguments)
        first.close()
        second.append(socket.create_server(("127.0.0.1", port)))
        return connection

    second, create_connection = [], socket.create_connection
    first = socket.create_server(("127.0.0.1", 0))
    port = first.getsockname()[1]
    monkeypatch.setattr(socket, "create_connection", connect)
    with pytest.raises(own_port.Stranger):
        own_port.connect(port, 5)
    second[0].close()


def test_no_account_without_rights_gets_a_ticket(others, fresh_host):
    bind = f"import socket; socket.create_server(('127.0.0.1', {PORT}))"
    refused = subprocess.run(["/usr/bin/python3", "-c", bind], user=MALLORY, group=MALLORY, extra_groups=[],
                             stderr=subprocess.PIPE, text=True, check=False)
    assert "PermissionError" in refused.stderr
    with others(listener(V4, "127.0.0.1", PORT)) as squatter:
        with pytest.raises(daemon_client.NoAnswer, match="belongs to user 1001, not to this host's daemon"):
            daemon_client.Daemon(absent=0).call(TASKS, "list")
        squatter.setblocking(False)
        with pytest.raises(BlockingIOError):
            squatter.accept()
    assert not pathlib.Path(paths.TICKETS).exists()


def test_helpers_reach_the_daemon_on_the_family_that_it_has(others, fresh_host):
    with others(listener(V4, "127.0.0.1", PORT)), subprocess.Popen([BINARIES / "kestreld"]) as process:
        try:
            assert daemon_client.Daemon(absent=10).call(TASKS, "list") == []
        finally:
            process.terminate()
