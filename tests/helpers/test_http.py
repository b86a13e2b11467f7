"""Downloads from real servers that behave, and from ones that do not."""

import hashlib
import socket
import threading

import pytest
from tessel_lifecycle.fetch import ContentError, FetchError, Patience, open_source

CONTENT = bytes(range(256)) * 2000
DIGEST = hashlib.sha256(CONTENT).hexdigest()
PATIENCE = Patience(attempts=3, timeout=0.3, pause=0, limit=0.6, slowest=10 << 20)


class Server:
    """Answers the n-th connection with the n-th of some scripts, the last one again and again; keeps the requests.

    A script gets the connected socket after the request's head and writes what it likes.
    """

    def __init__(self, *scripts):
        self.requests, self._scripts = [], list(scripts)
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.url = "http://127.0.0.1:%d" % self._listener.getsockname()[1]
        self._stopped = threading.Event()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while not self._stopped.is_set():
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._answer, args=(connection,), daemon=True).start()

    def _answer(self, connection):
        with connection:
            head = b""
            while b"\r\n\r\n" not in head and (data := connection.recv(4096)):
                head += data
            self.requests.append(head.decode())
            script = self._scripts.pop(0) if len(self._scripts) > 1 else self._scripts[0]
            try:
                script(self, connection)
            except OSError:
                pass  # the client has gone, as it should

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._stopped.set()
        self._listener.close()


def answer(status, body=b"", *headers, length=None):
    def script(_, connection):
        lines = [f"HTTP/1.1 {status} x", f"Content-Length: {len(body) if length is None else length}", *headers]
        connection.sendall("\r\n".join(lines).encode() + b"\r\n\r\n" + body)
    return script


def redirect(target):
    def script(server, connection):
        answer(302, b"", "Location: " + target.replace("SELF", server.url))(server, connection)
    return script


def hang(server, _):
    server._stopped.wait(30)


def drip(server, connection):
    connection.sendall(b"HTTP/1.1 200 OK\r\n")
    while not server._stopped.wait(0.05):
        connection.sendall(b"x")


def drip_body(server, connection):
    connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    drip(server, connection)


def endless(server, connection):
    connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    while not server._stopped.is_set():
        connection.sendall(bytes(1 << 16))


FULL = answer(200, CONTENT)
HALF = answer(200, CONTENT[:300000], length=len(CONTENT))


def rest(first):
    return answer(206, CONTENT[first:], f"Content-Range: bytes {first}-{len(CONTENT) - 1}/{len(CONTENT)}")


GOOD = {
    "at once": [FULL],
    "continued after half": [HALF, rest(300000)],
    "begun anew by a server without ranges": [HALF, FULL],
    "begun anew after a refused range": [HALF, answer(416), FULL],
    "other range than asked": [HALF, rest(10), FULL],
    "after an error of the server": [answer(503), FULL],
    "after a closed connection": [lambda *_: None, FULL],
    "after nonsense": [lambda _, c: c.sendall(b"\0" * 100 + b"\r\n\r\n"), FULL],
    "after hanging": [hang, FULL],
    "after wrong content": [answer(200, CONTENT[::-1]), FULL],
    "after too much": [answer(200, CONTENT + b"x"), FULL],
    "redirected": [redirect("SELF/other/place"), FULL],
}


@pytest.mark.parametrize("case", GOOD)
def test_download_ends_well(case, tmp_path):
    heard = []
    with Server(*GOOD[case]) as server:
        open_source(server.url, PATIENCE).download("f", str(tmp_path / "f"), len(CONTENT), DIGEST, heard.append)
        requests = server.requests
    assert (tmp_path / "f").read_bytes() == CONTENT and sum(heard) == len(CONTENT)
    assert len(requests) == len(GOOD[case])
    if "half" in case:
        assert "Range: bytes=300000-" in requests[1]


BAD = {
    "not found": (answer(404), 1), "forbidden": (answer(403), 1), "always an error": (answer(500), 3),
    "hangs": (hang, 3), "drips its head": (drip, 3), "drips its body": (drip_body, 3), "always half": (HALF, 3),
    "always wrong": (answer(200, CONTENT[::-1]), 3), "endless": (endless, 3),
    "redirects in a circle": (redirect("SELF/f"), 6), "redirects to a file": (redirect("file:///etc/passwd"), 1),
    "redirects nowhere": (redirect(""), 6), "redirects to no URL": (redirect("http://[::1"), 1),
    "endless head": (answer(200, CONTENT, "X: " + "y" * 70000), 3),
}


@pytest.mark.parametrize("case", BAD)
def test_download_is_given_up(case, tmp_path):
    script, requests = BAD[case]
    with Server(script) as server:
        with pytest.raises(FetchError):
            open_source(server.url, PATIENCE).download("f", str(tmp_path / "f"), len(CONTENT), DIGEST)
        assert len(server.requests) == requests
    assert not (tmp_path / "f").exists()
    part = tmp_path / "f.part"
    assert not part.exists() or part.stat().st_size <= len(CONTENT) + 1


def test_endless_metadata_is_not_stored():
    with Server(endless) as server:
        with pytest.raises(ContentError):
            open_source(server.url, PATIENCE).read("index.json", 1 << 20)
