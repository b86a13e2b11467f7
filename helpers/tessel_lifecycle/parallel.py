"""Work on all cores: threads, since unpacking, packing and digests leave the interpreter to others meanwhile."""

import collections
import contextlib
import os
import queue
import signal
import threading

MOST_THREADS = 8
_STACK = 1 << 20      # bytes; a stack counts as memory that was taken, the usual one of 8 MiB too
_PATIENCE = 0.1       # seconds between two calls of `meanwhile`


class Stopped(Exception):
    """The work of a thread is not wanted any more, because other work failed or the task is ended."""


def threads(most=MOST_THREADS):
    """How many threads `on_all_cores` uses."""
    return min(len(os.sched_getaffinity(0)), most)


def on_all_cores(work, items, meanwhile=lambda: None, most=MOST_THREADS):
    """Calls `work(item, check)` for each item, several at once; `meanwhile` is called now and then on this thread.

    Work that takes long calls `check()` at least every second; it raises Stopped once something failed or this thread
    was interrupted by a signal. No thread runs any more when this returns or raises. Raises what failed first.
    """
    crew = _Crew(work, items)
    try:
        crew.start(min(threads(most), len(items)))
        while not crew.has_ended(_PATIENCE):
            meanwhile()
    finally:
        crew.stop()
    crew.raise_first()


class _Crew:
    def __init__(self, work, items):
        self._work, self._items, self._threads = work, collections.deque(items), []
        self._is_stopping, self._wake = False, queue.SimpleQueue()
        self._ended = []  # of each thread that has come to its end what went wrong, or None

    def start(self, count):
        """Starts the threads. Signals are this thread's: another would take one without the work being interrupted."""
        mask = signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
        stack = threading.stack_size(_STACK)
        try:
            for _ in range(count):
                thread = threading.Thread(target=self._run, daemon=True)
                thread.start()
                self._threads.append(thread)
        finally:
            threading.stack_size(stack)
            signal.pthread_sigmask(signal.SIG_SETMASK, mask)

    def has_ended(self, patience):
        """Whether all threads have; waits for one for `patience` seconds. A signal may interrupt it anywhere, so that
        nothing is counted here."""
        if len(self._ended) < len(self._threads):
            with contextlib.suppress(queue.Empty):
                self._wake.get(timeout=patience)
        return len(self._ended) == len(self._threads)

    def stop(self):
        self._is_stopping = True
        for thread in self._threads:
            thread.join()

    def raise_first(self):
        for error in filter(None, self._ended):
            raise error

    def _check(self):
        if self._is_stopping:
            raise Stopped()

    def _next(self):
        with contextlib.suppress(IndexError):
            return self._items.popleft()

    def _run(self):
        error = None
        try:
            while not self._is_stopping and (item := self._next()) is not None:
                self._work(item, self._check)
        except Stopped:
            pass
        except BaseException as failed:
            error = failed
            self._is_stopping = True
        self._ended.append(error)
        self._wake.put(None)
