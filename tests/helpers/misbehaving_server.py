"""An HTTP server that answers as a script tells, and scripts for servers that no client would wish for; and one that
tells how it was asked."""

import functools
import http.server
import re
import socket
import threading


class Server:
    """Answers the n-th connection with the n-th of some scripts, the last one again and again; keeps the requests.

    A script gets the connected socket after the request's head and writes what it likes.
    """

    def __init__(self, *scripts, address="127.0.0.1"):
        self.requests, self._scripts = [], list(scripts)
        self._listener = socket.create_server((address, 0))
        self.url = f"http://{address}:{self._listener.getsockname()[1]}"
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


def rest_of(content, most):
    """The content from the first byte that the request asks for, cut off after `most` bytes."""
    def script(server, connection):
        begin = re.search(r"Range: bytes=(\d+)-", server.requests[-1])
        offset = int(begin[1]) if begin else 0
        piece = content[offset:offset + most]
        answer(206 if begin else 200, piece, f"Content-Range: bytes {offset}-{len(content) - 1}/{len(content)}",
               length=len(content) - offset)(server, connection)
    return script


class FolderServer(http.server.ThreadingHTTPServer):
    """A folder over HTTP/1.1 with connections that are kept. `connections` and `requests` count, and `most_at_once` the
    requests that were under way together. The first packages wait for each other until `together` are asked for."""

    daemon_threads = True

    def __init__(self, folder, together=1):
        super().__init__(("127.0.0.1", 0), functools.partial(_FolderHandler, directory=str(folder)))
        self.url = f"http://127.0.0.1:{self.server_port}"
        self.connections = self.requests = self.at_once = self.most_at_once = 0
        self.lock, self.barrier, self.waiting = threading.Lock(), threading.Barrier(together), together

    def __enter__(self):
        threading.Thread(target=self.serve_forever, daemon=True).start()
        return super().__enter__()

    def __exit__(self, *_):
        self.shutdown()
        super().__exit__()


class _FolderHandler(http.server.SimpleHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        super().setup()
        with self.server.lock:
            self.server.connections += 1

    def do_GET(self):
        server = self.server
        with server.lock:
            server.requests += 1
            server.at_once += 1
            server.most_at_once = max(server.most_at_once, server.at_once)
            waits = server.waiting > 0 and self.path.startswith("/paxs/")
            server.waiting -= waits
        if waits:
            server.barrier.wait(20)
        with server.lock:
            server.at_once -= 1  # before the client has it and asks for the next
        super().do_GET()

    def log_message(self, *_):
        pass
