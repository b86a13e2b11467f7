"""An HTTP server that answers as a script tells, and scripts for servers that no client would wish for."""

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
