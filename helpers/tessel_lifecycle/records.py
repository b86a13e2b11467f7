"""Where the records of tasks live: the task status file, or the task database behind its feature switch."""

import contextlib
import json
import mmap
import os
import stat
import syslog
import time

from tessel_lifecycle import files, paths, platform_file, record_json, record_span
from tessel_lifecycle.lock import LockTimeout, access_lock

LARGEST = 64 << 20  # bytes of the status file that the daemon reads
_LARGEST_DECODED = 16 << 20  # bytes of it that are taken apart where its records cannot be told otherwise
_TRIES_BEFORE_LOCKING = 2  # to make a change ready without the lock; others may be faster
_IDENTITY = ("st_dev", "st_ino", "st_mode", "st_size", "st_mtime_ns")  # of a file that has not been replaced or touched
# Why the file is set aside, in the daemon's words but for the last.
_TOO_LARGE, _FULL, _UNPARSED, _NO_OBJECT = ("is larger than can be read", "has no room left", "does not parse",
                                            "is no JSON object")
_STRANGE = "holds records that cannot be told apart"


def open_records():
    """The records of this host."""
    try:
        switched = platform_file.read(paths.FEATURE_STATES).get("task_database") == "true"
    except (OSError, ValueError):
        switched = False
    return DatabaseRecords(paths.TASK_DATABASE) if switched else FileRecords(paths.TASK_STATUS)


class FileRecords:
    """One JSON object, task identifier to record, in a file that is replaced whole under the lock named after it."""

    def __init__(self, path):
        self.path = path
        self._looked = False

    def change(self, task_id, edit, patience):
        """Calls `edit` with the task's record, empty if there is none, and keeps what it makes of it.

        Waits `patience` seconds for the lock. `edit` is called again when somebody else was faster.
        @throws LockTimeout, OSError
        """
        end = time.monotonic() + patience
        for _ in range(_TRIES_BEFORE_LOCKING):
            with contextlib.closing(_Rewrite(self.path, careful=not self._looked)) as rewrite:
                if not rewrite.prepare(task_id, edit):
                    break
                with access_lock(self.path, end - time.monotonic()):
                    made = rewrite.make()
                if made:
                    self._looked = True
                    return files.sync_directory(os.path.dirname(self.path))
        with access_lock(self.path, end - time.monotonic()):
            self._rewrite(task_id, edit)

    def change_at_last(self, task_id, edit, patience):
        """As `change`, but goes on without a lock that somebody sits on: the record of an end must not be lost."""
        try:
            self.change(task_id, edit, patience)
        except LockTimeout as error:
            syslog.syslog(syslog.LOG_ERR, f"{error}; going on without it")
            self._rewrite(task_id, edit)

    def _rewrite(self, task_id, edit):
        """Without anything made ready: that needs a file system which knows files without a name, a file that nobody
        replaces meanwhile, and records that can be told apart without a look at each."""
        try:
            with files.open_regular(self.path) as file:
                size = os.fstat(file.fileno()).st_size
                text = _text(file, size)
        except FileNotFoundError:
            os.makedirs(os.path.dirname(self.path), exist_ok=True)
            text = b"{}"
        parts, reason = _successor(text, task_id, edit, True) or _taken_apart(text, task_id, edit)
        aside = reason and _set_aside(self.path)
        files.replace(self.path, b"".join(parts))
        if aside:
            _tell(self.path, reason, aside)


def _text(file, size):
    return file.read() if size <= LARGEST else mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)


def _successor(text, task_id, edit, careful):
    """The text with one record changed, in pieces, and why the file has to be set aside, if it has to.

    None where that takes a look at each record.
    """
    found = record_span.find(text, task_id, careful)
    if found is None and len(text) <= _LARGEST_DECODED:
        return None
    end = found is None and record_span.find_end(text, task_id)
    start, behind, record = found or (0, 0, {})
    edit(record)
    own, name, whole, reason = record_json.dumps(record), b'"%s":' % task_id.encode(), memoryview(text), None
    if found:
        parts = whole[:start], own, whole[behind:]
    elif end:
        parts = whole[:end[0]], b"," if end[1] else b"", name, own, whole[end[0]:]
    else:
        parts, reason = (), _STRANGE
    if len(text) > LARGEST:
        reason = _TOO_LARGE
    elif sum(map(len, parts)) > LARGEST:
        reason = _FULL
    if reason:
        others = record_span.still_asked_for(text, max(LARGEST // 4 - len(own), 0), found and (start, behind))
        parts = b"{", b",".join([*others, name + own]), b"}"
    return _within_limits(parts), reason


def _within_limits(parts):
    if sum(map(len, parts)) > LARGEST:
        raise ValueError("the record is too large")
    return parts


def _taken_apart(text, task_id, edit):
    """As _successor, of a text that is looked at as a whole."""
    reason = None
    try:
        records = record_json.loads(text)
        reason = None if isinstance(records, dict) else _NO_OBJECT
    except ValueError:
        reason = _UNPARSED
    records = {} if reason else records
    record = records.get(task_id)
    records[task_id] = record if isinstance(record, dict) else {}
    edit(records[task_id])
    return _within_limits((record_json.dumps(records),)), reason


def _set_aside(path):
    """Gives the file a second name for good, as the daemon does. Returns it. @throws OSError"""
    dated, number = path + time.strftime(".%Y%m%dT%H%M%SZ", time.gmtime()), 0
    name = dated
    while True:
        try:
            os.link(path, name)
            return name
        except FileExistsError:
            number += 1
            name = f"{dated}-{number}"


def _tell(path, reason, aside):
    syslog.syslog(syslog.LOG_CRIT, f"Task file {path} {reason}, set aside as {aside}")


class _Rewrite:
    """The status file with one record changed, made ready before the lock is taken: whoever polls tasks waits for the
    lock, and reading, writing and syncing many records takes its time. All other bytes stay as they are, unless there
    is no room for them: then the file is set aside, and the next begins with the records that are still asked for."""

    def __init__(self, path, careful):
        self._path, self._careful, self._file, self._successor, self._reason = path, careful, None, None, None

    def prepare(self, task_id, edit):
        """Returns False where it takes a look at the whole file, under the lock."""
        try:
            self._file = files.open_regular(self._path)  # kept open: its number belongs to no other file meanwhile
            self._seen = os.fstat(self._file.fileno())
            made = _successor(_text(self._file, self._seen.st_size), task_id, edit, self._careful)
            if made is None:
                return False
            parts, self._reason = made
            self._successor = files.Successor(self._path, parts, stat.S_IMODE(self._seen.st_mode))
            return True
        except OSError:
            return False

    def make(self):
        """Puts it in place. Returns False when the file is not the one any more that it was made from."""
        try:
            there = os.stat(self._path)
            if any(getattr(there, name) != getattr(self._seen, name) for name in _IDENTITY):
                return False
            aside = self._reason and _set_aside(self._path)
            self._successor.take_place()
            if aside:
                _tell(self._path, self._reason, aside)
            return True
        except OSError:
            return False

    def close(self):
        if self._file:
            self._file.close()
        if self._successor:
            self._successor.close()


class DatabaseRecords:
    """A table with one row a task, whose text is the same record."""

    def __init__(self, path):
        self.path = path

    def change(self, task_id, edit, patience):
        """As FileRecords.change; an SQLite error is told as OSError."""
        import sqlite3
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        patience = max(5, patience)
        deadline = time.monotonic() + patience
        while True:
            try:
                with contextlib.closing(sqlite3.connect(self.path, timeout=patience, isolation_level=None)) as database:
                    return self._change(database, task_id, edit)
            except sqlite3.Error as error:
                # SQLite's own time-out does not hold while another process makes the file or changes its journal mode.
                busy = getattr(error, "sqlite_errorcode", 0) & 0xFF == sqlite3.SQLITE_BUSY
                if not busy or time.monotonic() > deadline:
                    raise OSError(f"{self.path}: {error}") from error
                time.sleep(0.01)

    change_at_last = change

    def _change(self, database, task_id, edit):
        database.execute("PRAGMA journal_mode = WAL")
        database.execute("CREATE TABLE IF NOT EXISTS tasks (id TEXT PRIMARY KEY, record TEXT NOT NULL)")
        database.execute("BEGIN IMMEDIATE")
        row = database.execute("SELECT record FROM tasks WHERE id = ?", (task_id,)).fetchone()
        try:
            record = record_json.loads(row[0].encode(errors="surrogateescape")) if row else {}
        except ValueError:
            record = {}
        record = record if isinstance(record, dict) else {}
        edit(record)
        text = json.dumps(record, separators=(",", ":"), allow_nan=False)
        database.execute("INSERT INTO tasks VALUES (?, ?) ON CONFLICT (id) DO UPDATE SET record = excluded.record",
                         (task_id, text))
        database.execute("COMMIT")
