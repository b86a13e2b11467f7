"""Clients that speak wrongly, and hosts in a bad state: each gets an answer, and nobody else notices."""

import contextlib
import http.client
import json
import os
import resource
import socket
import struct

import pytest

from sandboxed_host import LIFECYCLE, PORT, wait_until
from orbi_client import Client, OrbiError, envelope

INTROSPECTION = "com.tessel.orbi.std.introspection.service"
TASKS = "com.tessel.cis.tasks"
HEAD = b"POST /api HTTP/1.1\r\nContent-Type: application/json\r\n"
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"
GOOD = json.dumps(envelope(INTROSPECTION, "list")).encode()


def sized(body):
    return HEAD + b"Content-Length: %d\r\n\r\n" % len(body) + body


def answer_to(data):
    """Sends bytes on a connection of their own; returns the answer's status and body."""
    with socket.create_connection(("127.0.0.1", PORT), timeout=20) as connection:
        connection.sendall(data)
        response = http.client.HTTPResponse(connection)
        response.begin()
        return response.status, response.read()


def call_text(input_text, more=""):
    return ('{"jsonrpc":"2.0","id":7,"method":"invoke","params":{"serviceId":"%s","operationId":"get","input":%s}%s}'
            % (INTROSPECTION, input_text, more)).encode()


def short(parameter):
    return repr(parameter)[-40:]


@pytest.mark.parametrize("data, text", [
    (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\r\n" * 2, b"headers parse error"),  # TLS
    (HEAD + b"a: b\x00c\r\n\r\n", b"headers parse error"),
    (HEAD + b"a:\r\n folded\r\n\r\n", b"headers parse error"),
    (HEAD + b"x: " + b"x" * 4096, b"http headers too long"),
    (HEAD + b"Content-Length: 1\r\nContent-Length: 2\r\n\r\n", b"invalid request"),
    (HEAD + b"Content-Length: -1\r\n\r\n", b"invalid request"),
    (HEAD + b"Content-Length: 18446744073709551616\r\n\r\n", b"message too long"),
    (CHUNKED + b"10000000000000000\r\n", b"chunk parse error"),
    (CHUNKED + b"1;" + b"e" * 5000, b"chunk parse error"),
    (CHUNKED + b"2625a1\r\n" + b" " * 2500001 + b"\r\n0\r\n\r\n", b"message too long")],
                         ids=short)
def test_broken_http_is_refused(daemon, data, text):
    assert answer_to(data) == (400, text)


@pytest.mark.parametrize("body, code", [
    (call_text("[" * 100000), -32700), (call_text("1", ',"ignored":' + "[" * 100000), -32700),
    (call_text("1e999"), -32700), (call_text('"\xed\xa0\x80"').decode().encode("latin1"), -32700),
    (GOOD + b"\x00", -32700), (call_text("9223372036854775808"), -32602), (call_text('{"STRUCTURE":[]}'), -32602),
    (call_text('{"a":0,"a":0}'), -32602), (b"[" + GOOD + b"]", -32600)], ids=short)
def test_broken_calls_are_refused(daemon, body, code):
    status, answer = answer_to(sized(body))
    assert (status, json.loads(answer)["error"]["code"]) == (200, code)


@pytest.mark.parametrize("text", [
    "{%s}" % ",".join(f'"{i:x}":0' for i in range(230000)),  # a quadratic search would take minutes
    "[%s]" % ",".join(["[]"] * 800000), '"%s"' % ("\\u0001" * 400000)], ids=["members", "elements", "characters"])
def test_large_inputs_are_answered(daemon, text):
    status, answer = answer_to(sized(call_text('{"STRUCTURE":{"operation-input":{"id":%s}}}' % text)))
    document = json.loads(answer)
    assert status == 200 and "error" in document.get("result", document)


def memory_holds(daemon, text):
    with open(f"/proc/{daemon.process.pid}/maps") as maps, open(f"/proc/{daemon.process.pid}/mem", "rb") as memory:
        for line in maps:
            start, end = (int(address, 16) for address in line.split()[0].split("-"))
            if " rw-p " in line and end - start < 1 << 30:  # a sanitizer's own are larger
                memory.seek(start)
                if text in memory.read(end - start):
                    return True
    return False


@pytest.mark.parametrize("bad", [b"", b"Expect: no\r\n", b"a b\r\n"], ids=["checked", "refused", "unreadable"])
def test_no_password_stays_in_memory(start_daemon, monkeypatch, bad):
    monkeypatch.setenv("LD_BIND_NOW", "1")  # the linker's work at a first call leaves the registers on the stack
    daemon = start_daemon()
    call = json.dumps(envelope(TASKS, "list", {}, "mallory", "Ki9-never-kept-Zu3")).encode()
    head = HEAD.replace(b"\r\nC", b"\r\n" + bad + b"C")
    with socket.create_connection(("127.0.0.1", PORT), timeout=20) as connection:
        connection.sendall(head + b"Content-Length: %d\r\n\r\n" % len(call) + call)
        assert connection.recv(65536).startswith(b"HTTP/1.1 ")
        wait_until(lambda: not memory_holds(daemon, b"never-kept"), seconds=5, what="the end of the password")


def open_files(daemon):
    return len(os.listdir(f"/proc/{daemon.process.pid}/fd"))


def test_clients_that_go_at_any_moment_leave_nothing_behind(daemon):
    before = open_files(daemon)
    stream = HEAD + b"Accept: application/vnd.tessel.orbi.stream.json\r\n"
    echo = json.dumps({"jsonrpc": "2.0", "id": "x" * 2000000, "method": "none", "params": {}}).encode()
    for request in (sized(GOOD)[:20], sized(GOOD)[:-1], CHUNKED + b"5\r\n{", sized(GOOD) * 500, sized(echo),
                    stream + b"Content-Length: %d\r\n\r\n" % len(echo) + echo):
        for linger in (struct.pack("ii", 0, 0), struct.pack("ii", 1, 0)):  # a reset, too
            with contextlib.suppress(ConnectionError), socket.create_connection(("127.0.0.1", PORT)) as connection:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
                connection.sendall(request)
    wait_until(lambda: open_files(daemon) <= before, what="the end of all connections")
    assert answer_to(sized(GOOD))[0] == 200


def test_running_out_of_descriptors_is_got_over(daemon):
    before = open_files(daemon)
    resource.prlimit(daemon.process.pid, resource.RLIMIT_NOFILE, (before + 20, before + 20))
    with contextlib.ExitStack() as connections:
        client = Client(port=PORT)
        client.call(INTROSPECTION, "list")
        for _ in range(60):
            connections.enter_context(socket.create_connection(("127.0.0.1", PORT)))
        daemon.log.wait_for(";DelayAcceptError", daemon.mark)
        client.call(INTROSPECTION, "list")
    assert answer_to(sized(GOOD))[0] == 200
    assert daemon.client().call("com.tessel.ryx.host_settings.depots", "list") == []


@pytest.mark.parametrize("make", [os.mkfifo, os.mkdir, lambda path: os.symlink("/dev/zero", path)],
                         ids=["fifo", "directory", "device"])
def test_no_regular_status_file_stalls_nobody(daemon, make):
    path = LIFECYCLE / "task-status.json"
    path.unlink()
    make(path)
    client = Client(port=PORT, user="root", password="kestrel", timeout=20)
    with pytest.raises(OrbiError) as refusal:
        client.call(TASKS, "list")
    assert refusal.value.message_ids == ["com.tessel.ryx.task.unknown.error"]


@pytest.fixture
def stuck_system_log(fresh_host):
    """A system log that takes no more lines, as when its daemon is stopped by a debugger or a full disk."""
    os.rename("/dev/log", "/dev/log.aside")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as unread:
        unread.bind("/dev/log")
        unread.setblocking(False)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as writer, contextlib.suppress(BlockingIOError):
            writer.setblocking(False)
            while True:
                writer.sendto(b"full", "/dev/log")
        yield
    os.rename("/dev/log.aside", "/dev/log")


def test_a_stuck_system_log_stalls_nobody(stuck_system_log, trusted_front, start_daemon):
    daemon = start_daemon()
    root = Client(port=PORT, user="root", password="kestrel", timeout=20)
    for number in range(20):
        assert root.call(TASKS, "list") == {}
        stranger = Client(port=PORT, user="mallory", password="wrong", timeout=20, forwarded_for=f"192.0.2.{number}")
        with pytest.raises(OrbiError):
            stranger.call(TASKS, "list")  # of which PAM tells the system log
    assert daemon.stop() == 0
