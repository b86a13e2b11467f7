"""A small Orbi JSON-RPC client for the demonstration and the whole-daemon tests (Python standard library only)."""

import http.client
import itertools
import json
import socket
import time

USER_PASS = "com.tessel.orbi.std.security.user_pass"
_ids = itertools.count(1)


class OrbiError(Exception):
    """An API error: `identifier` is the error's type, `messages` its list of localizable messages."""

    def __init__(self, identifier, fields):
        self.identifier = identifier
        self.messages = fields.get("messages", [])
        texts = [message["default_message"] for message in self.messages]
        super().__init__(identifier.rsplit(".", 1)[-1] + (": " + " ".join(texts) if texts else ""))

    @property
    def message_ids(self):
        return [message["id"] for message in self.messages]


class ProtocolError(Exception):
    """A call that the server could not decode: `code` is the JSON-RPC error code."""

    def __init__(self, code, message):
        self.code = code
        super().__init__(f"{code}: {message}")


def envelope(service, operation, fields=None, user=None, password=None):
    """The JSON-RPC request of one call. `fields` may be plain Python data: the server reads bare JSON."""
    params = {
        "serviceId": service,
        "operationId": operation,
        "input": {"STRUCTURE": {"operation-input": fields or {}}},
    }
    if user is not None:
        params["ctx"] = {"securityCtx": {"schemeId": USER_PASS, "userName": user, "password": password}}
    return {"jsonrpc": "2.0", "id": str(next(_ids)), "method": "invoke", "params": params}


class _UnixConnection(http.client.HTTPConnection):
    """HTTP through a Unix socket."""

    def __init__(self, path, timeout):
        super().__init__("localhost", timeout=timeout)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Client:
    """One keep-alive connection, to a port or through the Unix socket `path`. Answers are read in clean JSON.
    `forwarded_for` is the address that a front tells of, which the daemon believes of the front's account alone.

    Not for use from several threads.
    """

    def __init__(self, host="127.0.0.1", port=None, user=None, password=None, timeout=60, path=None,
                 forwarded_for=None):
        port = port or socket.getservbyname("kestreld", "tcp")
        self._connection = (_UnixConnection(path, timeout) if path
                            else http.client.HTTPConnection(host, port, timeout=timeout))
        self._headers = {"Content-Type": "application/json", "Accept": "application/vnd.tessel.orbi.cleanjson"}
        if forwarded_for:
            self._headers["X-Forwarded-For"] = forwarded_for
        self._user = user
        self._password = password

    def post(self, body, headers=None):
        """Sends raw bytes or a document; returns the HTTP response and its body."""
        if not isinstance(body, (bytes, str)):
            body = json.dumps(body)
        self._connection.request("POST", "/api", body, self._headers | (headers or {}))
        response = self._connection.getresponse()
        return response, response.read()

    def call(self, service, operation, **fields):
        """Calls an operation and returns its output; raises OrbiError or ProtocolError."""
        response, body = self.post(envelope(service, operation, fields, self._user, self._password))
        if response.status != 200:
            raise ProtocolError(response.status, body.decode(errors="replace"))
        document = json.loads(body)
        if "error" in document:
            raise ProtocolError(document["error"]["code"], document["error"]["message"])
        result = document["result"]
        if "error" in result:
            ((identifier, values),) = result["error"].items()
            raise OrbiError(identifier, values)
        return result.get("output")

    def wait_for_daemon(self, process, seconds=10):
        """Waits until the daemon, which was started as `process`, answers. @throws TimeoutError"""
        deadline = time.monotonic() + seconds
        while True:
            try:
                self.call("com.tessel.cis.tasks", "list")
                return
            except (OSError, http.client.HTTPException):
                self.close()
            if process.poll() is not None:
                raise TimeoutError(f"kestreld ended with status {process.returncode}")
            if time.monotonic() > deadline:
                raise TimeoutError("kestreld does not answer")
            time.sleep(0.01)

    def wait_for_task(self, task, on_progress=lambda info: None, timeout=60, interval=0.1):
        """Polls a task to its end and returns its information, whatever the end was."""
        deadline = time.monotonic() + timeout
        while True:
            info = self.call("com.tessel.cis.tasks", "get", task=task)
            on_progress(info)
            if info["status"] in ("SUCCEEDED", "FAILED"):
                return info
            if time.monotonic() > deadline:
                raise TimeoutError(f"task {task} is still {info['status']}")
            time.sleep(interval)

    def close(self):
        self._connection.close()
