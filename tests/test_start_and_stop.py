"""How the process starts and stops, and what it does when something it needs is missing."""

import contextlib
import ctypes
import json
import os
import pathlib
import resource
import signal
import socket
import subprocess
import time

import pytest

from orbi_client import Client
from sandboxed_host import BINARIES, LIFECYCLE, PORT, wait_until

SYNC_FILE = LIFECYCLE / "lifecycle.task"
STATUS_FILE = LIFECYCLE / "task-status.json"
METADATA = pathlib.Path("/usr/lib/tessel/lifecycle/metadata")
PIDFD_GETFD = 438


def run_until_end(seconds=20):
    return subprocess.run([BINARIES / "kestreld"], timeout=seconds, check=False).returncode


def test_starts_on_an_empty_host_and_repairs_its_files(start_daemon):
    LIFECYCLE.mkdir(parents=True)
    SYNC_FILE.write_text("PRECURSOR: left by an earlier run")
    STATUS_FILE.write_text('{"a": {}} trailing')
    daemon = start_daemon()
    assert not SYNC_FILE.exists()
    assert STATUS_FILE.read_text() == "{}"
    daemon.log.wait_for("re-creating the file...", daemon.mark)
    daemon.log.wait_for(f"HTTP endpoint listening on TCP port {PORT}", daemon.mark)
    assert daemon.client().call("com.tessel.cis.tasks", "list") == {}


def test_unfinished_in_process_tasks_are_failed_at_the_next_start(start_daemon):
    LIFECYCLE.mkdir(parents=True)
    own = "com.tessel.ryx.kestrel_daemon.configuration.apply$task"
    helpers = "com.tessel.ryx.kestrel_daemon.software.apply$task"
    started = "2026-11-21T02:12:52.123Z"
    STATUS_FILE.write_text(json.dumps({
        "left": {"status": "RUNNING", "operation": own, "startTime": started, "kept": {"member": [1, -1, 0.5]}},
        "helpers": {"status": "RUNNING", "operation": helpers, "startTime": started}}))
    tasks = start_daemon().client().call("com.tessel.cis.tasks", "list")
    assert {name: task["status"] for name, task in tasks.items()} == {"left": "FAILED", "helpers": "RUNNING"}
    assert json.loads(STATUS_FILE.read_text())["left"]["kept"] == {"member": [1, -1, 0.5]}


def test_sigterm_at_any_moment_of_the_start_ends_it_in_order(fresh_host):
    for delay in (0.001, 0.003, 0.006, 0.01, 0.02, 0.05):
        process = subprocess.Popen([BINARIES / "kestreld"])
        time.sleep(delay)
        process.send_signal(signal.SIGTERM)
        # Before its handler is there the signal ends a process by default.
        assert process.wait(10) in (0, -signal.SIGTERM), f"after {delay} s"


def test_second_daemon_on_the_same_port_leaves_the_first_alone(daemon, root):
    second = subprocess.Popen([BINARIES / "kestreld"])
    daemon.log.wait_for("IPv4 Failed to listen on:", daemon.mark)
    daemon.log.wait_for("IPv6 Failed to listen on:", daemon.mark)
    assert root.call("com.tessel.cis.tasks", "list") == {}
    second.terminate()
    assert second.wait(10) == 0


def test_one_family_that_cannot_listen_is_left_out(fresh_host):
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as squatter:
        squatter.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        squatter.bind(("127.0.0.1", PORT))
        squatter.listen()
        daemon = subprocess.Popen([BINARIES / "kestreld"])
        mark = fresh_host.mark()

        def answers():
            with contextlib.suppress(OSError), socket.create_connection(("::1", PORT), timeout=1):
                return True

        wait_until(answers, what="the IPv6 listener")
        daemon.terminate()
        assert daemon.wait(10) == 0
        fresh_host.wait_for("IPv4 Failed to listen on:", max(0, mark - 50))


def shut_down_listeners(process):
    """Ends the listening of another process, as an error of the kernel would."""
    libc = ctypes.CDLL(None, use_errno=True)
    handle = os.pidfd_open(process.pid)
    for file in os.listdir(f"/proc/{process.pid}/fd"):
        if os.readlink(f"/proc/{process.pid}/fd/{file}").startswith("socket:"):
            with socket.socket(fileno=libc.syscall(PIDFD_GETFD, handle, int(file), 0)) as copy:
                if copy.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN):
                    copy.shutdown(socket.SHUT_RD)
    os.close(handle)


def test_readiness_is_told_while_somebody_can_call(fresh_host, monkeypatch):
    listening, mark = f"HTTP endpoint listening on TCP port {PORT}", fresh_host.mark()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind("\0kestreld-test-notify")
        manager.settimeout(20)
        monkeypatch.setenv("NOTIFY_SOCKET", "@kestreld-test-notify")
        with socket.create_server(("", PORT)), socket.create_server(("::", PORT), family=socket.AF_INET6):
            process = subprocess.Popen([BINARIES / "kestreld"])
            assert manager.recv(1000).startswith(b"STATUS=Cannot listen")
            assert "<26>" in fresh_host.wait_for(f"HTTP endpoint not listening on TCP port {PORT}", mark)
            assert not any(listening in line for line in fresh_host.lines[mark:])
        try:
            ready = b"READY=1\nSTATUS=Listening on TCP port %d (IPv4 and IPv6)" % PORT
            assert manager.recv(1000) == ready
            fresh_host.wait_for(listening, mark)
            mark = fresh_host.mark()
            shut_down_listeners(process)
            fresh_host.wait_for(";TerminalAcceptError", mark)
            assert manager.recv(1000).startswith(b"STATUS=Cannot listen")
            assert manager.recv(1000) == ready
            fresh_host.wait_for(listening, mark)
            assert Client(port=PORT, user="root", password="kestrel").call("com.tessel.cis.tasks", "list") == {}
        finally:
            process.terminate()
        assert process.wait(10) == 0
        assert manager.recv(1000) == b"STOPPING=1"


def test_helpers_start_with_the_limits_and_the_environment_of_others(start_daemon, monkeypatch, tmp_path):
    command, (soft, hard) = BINARIES / "imagemanagerctl.py", resource.getrlimit(resource.RLIMIT_NOFILE)
    original = command.read_text()
    monkeypatch.setenv("NOTIFY_SOCKET", "/run/nobody")
    resource.setrlimit(resource.RLIMIT_NOFILE, (1000, hard))
    try:
        daemon = start_daemon()
        command.write_text(f"import os, resource\nwith open('{tmp_path}/seen', 'w') as seen:\n"
                           "    print(resource.getrlimit(resource.RLIMIT_NOFILE), 'NOTIFY_SOCKET' in os.environ,"
                           " file=seen)\nprint('[]')\n")
        assert daemon.client().call("com.tessel.ryx.host_settings.depots", "list") == []
        assert (tmp_path / "seen").read_text() == f"(1000, {hard}) False\n"
        assert resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE) == (min(hard, 16384), hard)
    finally:
        command.write_text(original)
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


@pytest.fixture
def services_file():
    path = pathlib.Path("/etc/services")
    text = path.read_text()
    yield path
    path.write_text(text)


def test_without_its_port_it_stops_and_says_so(fresh_host, services_file):
    mark = fresh_host.mark()
    services_file.write_text("".join(line for line in services_file.read_text().splitlines(True)
                                     if not line.startswith("kestreld")))
    assert run_until_end() == -signal.SIGABRT
    fresh_host.wait_for("getaddrinfo failed. Error: ", mark)
    fresh_host.wait_for("VERIFY apps/lifecycle/orbi/orbicpp/endpoint:107", mark)


@pytest.mark.parametrize("name, line", [
    ("kestreld_orbi_cli.json", 528), ("orbi_common_cli.json", 531), ("kestreld_orbi_metamodel.json", 537),
    ("orbi_common_metamodel.json", 540), ("kestreld_orbi_authentication.json", 546)])
@pytest.mark.parametrize("content", [None, "{", '{"component": 7}'], ids=["missing", "cut", "mistyped"])
def test_without_its_metadata_it_stops_and_says_so(fresh_host, name, line, content):
    mark = fresh_host.mark()
    path = METADATA / name
    text = path.read_text()
    try:
        path.unlink()
        if content is not None:
            path.write_text(content)
        assert run_until_end() == -signal.SIGABRT
    finally:
        path.write_text(text)
    fresh_host.wait_for("Error loading file: ", mark)
    fresh_host.wait_for(f"VERIFY apps/lifecycle/orbi/orbicpp/provider:{line}", mark)


def test_lock_held_at_start_is_waited_for_and_then_given_up(fresh_host):
    from hashlib import md5
    mark = fresh_host.mark()
    with socket.socket(socket.AF_UNIX) as holder:
        holder.bind("\0/com/tessel/" + md5(str(STATUS_FILE).encode()).hexdigest())
        assert run_until_end(30) == 255
    fresh_host.wait_for("Giving up on acquiring lock", mark)


def test_open_connections_do_not_hold_up_the_end(daemon):
    with contextlib.ExitStack() as connections:
        for _ in range(50):
            connection = connections.enter_context(socket.create_connection(("127.0.0.1", PORT)))
            connection.sendall(b"POST /api HTTP/1.1\r\nContent-Length: 100\r\n")
        assert daemon.stop() == 0
