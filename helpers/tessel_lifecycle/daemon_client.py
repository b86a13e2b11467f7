"""Calls of this host's own daemon: Orbi's JSON-RPC over HTTP/1.1 on the loopback address."""

import contextlib
import functools
import http.client
import json
import socket
import time

from tessel_lifecycle import host_claim, own_port, ticket
from tessel_lifecycle.document import Fields, compact, list_of, parse, size, text
from tessel_lifecycle.errors import TaskError
from tessel_lifecycle.plain_json import opened, option
from tessel_lifecycle.timed_response import TimedResponse

_SCHEME = "com.tessel.orbi.std.security.user_pass"
_TASKS = "com.tessel.cis.tasks"
_BUSY = (host_claim.TASK.contention, "com.tessel.ryx.task.lock.error")

_MOST_REQUEST = 2_500_000  # bytes that the daemon takes
_MOST_ANSWER = 64 << 20
_ANSWER_TIME = 60  # seconds; calls are carried out one at a time, and one before may run a command
_PAUSE = 1         # seconds between two tries
_POLL = 0.25       # seconds between two looks at a task
_LONGEST = {"PENDING": 600, "RUNNING": 4 * 3600}  # seconds that a task may stay in a state


class NoAnswer(Exception):
    """The daemon was not reached, or what it said is no answer."""


class _Unanswerable(NoAnswer):
    """As there will be no answer if the daemon is asked again."""


class DaemonError(TaskError):
    """The error value of an operation or of a task, in plain JSON; known by its first message's identifier."""

    def __init__(self, value):
        kind, fields = opened(value, "ERROR")
        messages = fields.take("messages", list_of(lambda message: opened(message)[1]), [])
        first = messages[0] if messages else Fields({"id": kind})
        super().__init__(first.take("id", text), first.take("args", list_of(text), []))
        self._value, self._texts = value, [message.take("default_message", text) for message in messages]

    @property
    def text(self):
        return " ".join(self._texts) or self.identifier

    def recorded(self):
        """Whole, as the daemon's own tasks leave it, since not all its identifiers have a text of their own there."""
        return {"exception": compact(self._value)}


class Daemon:
    """The daemon, as its clients see it.

    `absent` is for how many seconds a call is repeated while the daemon does not answer, which may just be restarted,
    and `busy` for how many while another task keeps it from carrying out the call.
    """

    def __init__(self, absent=60, busy=600):
        self._absent, self._busy = absent, busy

    def run_task(self, service, operation, on_progress, **fields):
        """Starts a task and waits for its end, telling the percentage. Returns its result in plain JSON.

        @throws NoAnswer, DaemonError
        """
        task = self.call(service, operation, **fields)
        status, since = None, 0
        while True:
            info = _decoded(lambda answer: opened(answer)[1], self.call(_TASKS, "get", task=task))
            before, status = status, _decoded(info.take, "status", text)
            if status == "SUCCEEDED":
                return _decoded(info.take, "result", option, None)
            if status == "FAILED":
                raise _decoded(lambda: DaemonError(info.take("error", option)))
            if status != before:
                since = time.monotonic()
            if time.monotonic() - since > _LONGEST.get(status, 0):
                raise NoAnswer(f"task {task} stays {status}")
            on_progress(_decoded(_completed, info))
            time.sleep(_POLL)

    def call(self, service, operation, **fields):
        """The output of an operation in plain JSON. @throws NoAnswer, DaemonError"""
        first_failed = {}
        while True:
            try:
                return self._ask(service, operation, fields)
            except (NoAnswer, DaemonError) as error:
                now = time.monotonic()
                if now - first_failed.setdefault(type(error), now) >= self._patience(error):
                    raise
            time.sleep(_PAUSE)

    def _patience(self, error):
        if isinstance(error, DaemonError):
            return self._busy if error.identifier in _BUSY else 0
        return 0 if isinstance(error, _Unanswerable) else self._absent

    def _ask(self, service, operation, fields):
        try:
            # There is no ticket before it is known who will receive it.
            with contextlib.closing(_Connection()) as connection, ticket.issued() as credential:
                security = {"schemeId": _SCHEME, "userName": credential, "password": credential}
                answer = connection.post({"jsonrpc": "2.0", "id": 1, "method": "invoke", "params": {
                    "serviceId": service, "operationId": operation, "ctx": {"securityCtx": security},
                    "input": {"STRUCTURE": {"operation-input": fields}}}})
        except (OSError, http.client.HTTPException) as error:
            raise NoAnswer(f"{operation}: {error!r:.200}") from error
        result = _decoded(lambda: Fields(parse(answer), "answer").take("result", Fields))
        if "error" in result.value:
            raise _decoded(DaemonError, result.value["error"])
        return result.value.get("output")


class _Connection(http.client.HTTPConnection):
    """A connection to the daemon, for one call. @throws OSError"""

    auto_open = 0  # not to anybody else later

    def __init__(self):
        super().__init__("127.0.0.1", socket.getservbyname("kestreld", "tcp"), timeout=_ANSWER_TIME)
        self.sock = own_port.connect(self.port, self.timeout)

    def post(self, request):
        """The body of the answer to a request. @throws OSError, HTTPException, NoAnswer"""
        content = json.dumps(request, separators=(",", ":"), ensure_ascii=False).encode()
        if len(content) > _MOST_REQUEST:
            raise _Unanswerable(f"the request would have {len(content)} bytes")
        self.response_class = functools.partial(TimedResponse, deadline=time.monotonic() + _ANSWER_TIME)
        self.request("POST", "/api", content, {
            "Content-Type": "application/json", "Accept": "application/json", "Connection": "close"})
        response = self.getresponse()
        body = response.read(_MOST_ANSWER + 1)
        if response.status != 200 or len(body) > _MOST_ANSWER:
            raise _Unanswerable(f"answered {response.status} and {len(body)} bytes: {body[:80]!r}")
        return body


def _completed(info):
    progress = info.take("progress", option, None)
    return opened(progress)[1].take("completed", size) if progress else 0


def _decoded(read, *arguments):
    """What `read` makes of something that the daemon answered; what it cannot read will not get better."""
    try:
        return read(*arguments)
    except ValueError as error:
        raise _Unanswerable(f"not an answer: {error}") from error
