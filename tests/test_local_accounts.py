"""What an account of the host without any rights can do to the daemon and its helpers: nothing."""

import contextlib
import json
import os
import pathlib
import socket
import stat
import subprocess
import sys

import pytest

from orbi_client import OrbiError
from sandboxed_host import BINARIES, LIFECYCLE, PORT, REPOSITORY, STATE

sys.path.insert(0, str(REPOSITORY / "helpers"))

from tessel_lifecycle import daemon_client, lock, own_port, paths

TASKS = "com.tessel.cis.tasks"
IMAGE = {"base_image": {"version": "8.0.1-1"}, "components": {}}
DOCUMENT = '{"metadata": {"schema_version": "1.0"}, "profile": {"system": {"banner": {"motd": {"text": "Hello"}}}}}'
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
    made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)  # connections of daemons that have ended may linger
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


NAMES = [lock.lock_name(path) for path in (paths.TASK_STATUS, paths.TASK_SYNC, paths.APPLY_PID)]


@pytest.fixture
def lock_squatter(others):
    """A process of an account without rights that has the names of all locks."""
    program = ("import signal, socket, sys\n"
               "taken = [socket.socket(socket.AF_UNIX) for _ in sys.argv[1:]]\n"
               "for one, name in zip(taken, sys.argv[1:]):\n"
               "    one.bind('\\0' + name)\n"
               "print('ready', flush=True)\n"
               "signal.pause()")
    with subprocess.Popen(["/usr/bin/python3", "-c", program, *(name[1:].decode() for name in NAMES)], user=MALLORY,
                          group=MALLORY, extra_groups=[], stdout=subprocess.PIPE) as process:
        assert process.stdout.readline() == b"ready\n"
        yield process
        process.kill()


def test_whoever_binds_the_names_of_locks_stops_nothing(lock_squatter, start_daemon, sample_depot):
    daemon = start_daemon()
    client = daemon.client()
    for service, operation, fields in (
            ("com.tessel.ryx.kestrel_daemon.configuration", "validate$task", {"document": DOCUMENT}),
            ("com.tessel.ryx.kestrel_daemon.software", "scan$task", {"depots": [sample_depot], "software_spec": IMAGE}),
            ("com.tessel.ryx.hosts.settings", "set$task", {"depots": [sample_depot], "image": IMAGE})):
        task = client.call(service, operation, **fields)
        assert client.wait_for_task(task, interval=0.02)["status"] == "SUCCEEDED"
    daemon.log.wait_for(f"[AccessLock]: socket{{{NAMES[0][1:].decode()}}} is bound by user {MALLORY}, which is no lock",
                        daemon.mark)


@pytest.mark.parametrize("given_free", [False, True])
def test_daemon_and_helpers_exclude_each_other_without_the_name(given_free, lock_squatter, start_daemon):
    """Also once the squatter lets go of the name: it is not the lock then, either."""
    client = start_daemon().client()
    with lock.access_lock(paths.TASK_SYNC, 0):
        if given_free:
            lock_squatter.kill()
            lock_squatter.wait()
        with pytest.raises(lock.LockTimeout), lock.access_lock(paths.TASK_SYNC, 0):
            pass
        with pytest.raises(OrbiError, match="Another task is in progress"):
            client.call("com.tessel.ryx.kestrel_daemon.configuration", "validate$task", document=DOCUMENT)
    task = client.call("com.tessel.ryx.kestrel_daemon.configuration", "validate$task", document=DOCUMENT)
    assert client.wait_for_task(task, interval=0.02)["status"] == "SUCCEEDED"


def modes(folder):
    """What is below a folder, by its path there, with its mode."""
    paths_below = sorted(folder.rglob("*"))
    return {str(path.relative_to(folder)): stat.S_IMODE(path.lstat().st_mode)
            for path in paths_below if not path.is_symlink()}


def test_state_is_closed_to_others_and_what_goes_to_the_host_is_not(start_daemon, sample_depot):
    """Whatever a looser version or a missing tmpfiles.d left, and whatever umask the daemon was started with."""
    folders = LIFECYCLE, STATE / "configstore"
    for folder in folders:
        folder.mkdir(parents=True)
        folder.chmod(0o777)
    before = os.umask(0)
    try:
        client = start_daemon().client()
    finally:
        os.umask(before)
    for service, operation, fields in (
            ("com.tessel.ryx.kestrel_daemon.software", "scan$task", {"depots": [sample_depot], "software_spec": IMAGE}),
            ("com.tessel.ryx.hosts.settings", "set$task",
             {"depots": [sample_depot], "image": IMAGE, "configuration": json.loads(DOCUMENT)})):
        task = client.call(service, operation, **fields)
        assert client.wait_for_task(task, interval=0.02)["status"] == "SUCCEEDED"
    root = (LIFECYCLE / "image/current/root").resolve()
    places = *folders, *pathlib.Path("/run/tessel").iterdir()
    loose = {str(path) for place in places for path in (place, *place.rglob("*"))
             if path.lstat().st_mode & (0o066 if path in root.parents else 0o077)  # the way to the image's programs
             and not path.is_symlink() and path != root and root not in path.parents}
    assert loose == set()
    listed = {file["path"]: file.get("mode") for descriptor in (LIFECYCLE / "image/current/descriptors").iterdir()
              for file in json.loads(descriptor.read_text())["files"] if file["type"] != "link"}
    assert len(listed) > 5 and modes(root) == {path: listed.get(path, 0o755) for path in modes(root)}
    assert pathlib.Path("/etc/motd").stat().st_mode & 0o777 == 0o644
