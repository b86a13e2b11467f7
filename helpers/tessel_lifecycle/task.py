"""The record of one task, from RUNNING to its end."""

import contextlib
import datetime
import signal
import syslog
import time

from tessel_lifecycle import caller, files, host_claim
from tessel_lifecycle.document import compact
from tessel_lifecycle.lock import LockTimeout
from tessel_lifecycle.records import open_records

ENDING = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)

_FINISHED = ("SUCCEEDED", "FAILED")
_PATIENCE = 30         # seconds for the lock at start and end
_SHORT_PATIENCE = 1    # seconds for the lock to tell progress, which can be left out
_LEAST_INTERVAL = 0.1  # seconds between two rewrites for progress
_LAST_TRIES = 600      # seconds for a disk to take the record of an end


class Terminated(BaseException):
    """The task was asked to end; not an Exception, so that nothing takes it for a failure of its own."""


def utc_now():
    """The time as records hold it: UTC, ISO 8601, milliseconds."""
    return datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds").replace("+00:00", "Z")


@contextlib.contextmanager
def uninterrupted():
    """Puts off termination while something is done that must be done whole."""
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)


class Task:
    """One task.

    `documents` are its input files, removed at its end. Then `claim` is released, by which the task has the host.
    """

    def __init__(self, task_id, operation, documents, claim=host_claim.TASK):
        self.id, self.operation, self._documents, self._claim = task_id, operation, documents, claim
        self._records = open_records()
        self._told, self._told_at = 0, 0.0

    def start(self):
        """To RUNNING. A task that was given up before is not begun: @throws Terminated"""
        def edit(record):
            if record.get("status") in _FINISHED:
                raise Terminated("it has ended already")
            record.update(status="RUNNING", operation=self.operation, **caller.recorded(),
                          progress=_progress(0), startTime=utc_now())
        with uninterrupted():
            self._records.change_at_last(self.id, edit, _PATIENCE)

    def progress(self, percent):
        """Tells how far the task is; skipped when it was told just before or the records are busy."""
        percent = min(int(percent), 99)
        if percent <= self._told or time.monotonic() < self._told_at + _LEAST_INTERVAL:
            return
        with contextlib.suppress(LockTimeout, OSError), uninterrupted():
            self._records.change(self.id, lambda record: record.update(progress=_progress(percent)), _SHORT_PATIENCE)
        self._told, self._told_at = percent, time.monotonic()

    def commit(self):
        """From here on the task has done what it was asked for and cannot be ended any more."""
        signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)

    def reopen(self):
        """Takes back `commit`: there is more to do, which can be ended."""
        signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)

    def tell(self, result, percent):
        """Records how far the task is, and a value in plain JSON that stays told however the task ends."""
        with uninterrupted():
            self._records.change_at_last(self.id, lambda record: record.update(
                result=compact(result), progress=_progress(percent)), _PATIENCE)
        self._told = percent

    def succeed(self, result):
        """To SUCCEEDED with a value in plain JSON."""
        self._finish(lambda record: record.update(
            status="SUCCEEDED", progress=_progress(100), endTime=utc_now(), result=compact(result)))

    def fail(self, error):
        """To FAILED with what a TaskError tells, unless the task has ended. Returns whether it had."""
        finished = []

        def edit(record):
            finished.append(record.get("status") in _FINISHED)
            if not finished[-1]:
                self._fail(record, error)
        self._finish(edit)
        return finished[-1]

    def _fail(self, record, error):
        record.setdefault("operation", self.operation)
        for member, value in caller.recorded().items():
            record.setdefault(member, value)
        record.setdefault("progress", _progress(0))
        record.setdefault("startTime", utc_now())  # a record of an end without a start is not readable
        record.update(status="FAILED", endTime=utc_now(), **error.recorded())

    def _finish(self, edit):
        """Frees the host for the next task, then records the end: who sees the end may start the next at once."""
        with uninterrupted():
            for document in self._documents:
                files.remove(document)
            self._claim.release(self.id)
            end = time.monotonic() + _LAST_TRIES
            while True:
                try:
                    return self._records.change_at_last(self.id, edit, _PATIENCE)
                except OSError as error:
                    syslog.syslog(syslog.LOG_ERR, f"task {self.id}: cannot record its end: {error}")
                    if time.monotonic() > end:
                        raise
                time.sleep(1)


def is_task_id(word):
    """Whether a word can be a task's identifier, and so part of a path."""
    return len(word) == 36 and all(c in "0123456789abcdefABCDEF-" for c in word)


def _progress(percent):
    return {"completed": percent, "total": 100}
