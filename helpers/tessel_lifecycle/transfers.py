"""Carries out transfers beside each other, in one thread, over connections that are kept for the next."""

import contextlib
import select
import signal
import threading
import time

AT_ONCE = 8  # transfers, and connections to one server

_STACK = 1 << 20  # bytes
# Signals with handlers in these commands; to block all takes longer than what is done meanwhile.
_HANDLED = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGIO, signal.SIGALRM)
_TICK = 0.1       # seconds between two looks for what is overdue
_kept = threading.local()


def run(jobs, at_once=AT_ONCE):
    """Carries out generators, up to `at_once` at a time. Returns what they return, in the order of their ends.

    A generator yields a Request, and goes on when it was answered, or has thrown into it why it was not; or it yields
    a number of seconds, and goes on after them. What one raises ends all.
    """
    jobs, current = iter(jobs), _Run()
    try:
        while current.fill(jobs, at_once):
            current.wait()
            current.go_on()
        return current.results
    finally:
        current.end()


class _Run:
    def __init__(self):
        self.results = []
        self._asked = {}    # handle -> (job, request)
        self._resting = {}  # job -> when it goes on

    def fill(self, jobs, at_once):
        """Begins jobs while there is room; whether any is under way."""
        while len(self._asked) + len(self._resting) < at_once and (job := next(jobs, None)):
            self._advance(job)
        return self._asked or self._resting

    def wait(self):
        """Waits until there may be something to do."""
        now = time.monotonic()
        until = min([now + _TICK, *self._resting.values()])
        if not self._asked:
            time.sleep(max(0, until - now))
            return
        reading, writing, failing = [], [], []
        for multi in _connections():
            for found, all_found in zip(multi.fdset(), (reading, writing, failing)):
                all_found += found
            if 0 <= (own := multi.timeout()) < 1000 * _TICK:
                until = min(until, now + own / 1000)
        select.select(reading, writing, failing, max(0, until - now))

    def go_on(self):
        """Advances every job that has what it waited for."""
        for multi in _connections() if self._asked else ():
            with undisturbed():
                multi.perform()
            _, done, failed = multi.info_read()
            for handle, code, message in [(handle, 0, "") for handle in done] + failed:
                self._answer(handle, lambda request: request.outcome(code, message))
        now = time.monotonic()
        for handle, (_, request) in list(self._asked.items()):
            if overdue := request.overdue(now):
                self._answer(handle, lambda request: overdue)
        for job, due in list(self._resting.items()):
            if due <= now:
                del self._resting[job]
                self._advance(job)

    def _answer(self, handle, outcome):
        job, request = self._asked.pop(handle)
        error = outcome(request)
        request.connections.remove_handle(handle)
        handle.close()
        self._advance(job, error)

    def _advance(self, job, error=None):
        try:
            wanted = job.throw(error) if error else next(job)
        except StopIteration as end:
            self.results.append(end.value)
            return
        if isinstance(wanted, (int, float)):
            self._resting[job] = time.monotonic() + wanted
            return
        self._asked[wanted.handle] = job, wanted
        wanted.connections = _connections()[wanted.is_redirected_from_afar]
        wanted.connections.add_handle(wanted.handle)

    def end(self):
        """Leaves what is under way, with what has come of it where the next call finds it."""
        left = [*self._resting, *(job for job, _ in self._asked.values())]
        for handle, (_, request) in self._asked.items():
            with contextlib.suppress(Exception):  # one that was just to be added
                request.connections.remove_handle(handle)
            handle.close()
        for job in left:
            job.close()


def _connections():
    """This thread's connections. Those of requests that must not reach this host are kept apart: each was looked at
    when it was opened."""
    if not hasattr(_kept, "connections"):
        import pycurl
        _limit_stacks()
        _kept.connections = pycurl.CurlMulti(), pycurl.CurlMulti()
        for multi in _kept.connections:
            multi.setopt(pycurl.M_MAX_HOST_CONNECTIONS, AT_ONCE)
            multi.setopt(pycurl.M_MAXCONNECTS, 2 * AT_ONCE)
    return _kept.connections


def _limit_stacks():
    """libcurl resolves names in threads, and what their stacks reserve counts against the memory of this process."""
    import ctypes
    c, attributes = ctypes.CDLL(None), ctypes.create_string_buffer(64)  # pthread_attr_t has 56 bytes
    c.pthread_getattr_default_np(attributes)
    c.pthread_attr_setstacksize(attributes, ctypes.c_size_t(_STACK))
    c.pthread_setattr_default_np(attributes)


@contextlib.contextmanager
def undisturbed():
    """Keeps signals out of libcurl: what a handler raises in one of its callbacks would be lost there. Threads that
    begin meanwhile get none either, on behalf of which the handler would run all the same."""
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, _HANDLED)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)
