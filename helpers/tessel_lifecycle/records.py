"""Where the records of tasks live: the task status file, or the task database behind its feature switch."""

import contextlib
import json
import os
import stat
import syslog
import time

from tessel_lifecycle import files, paths, platform_file, record_span
from tessel_lifecycle.lock import LockTimeout, access_lock

_TRIES_BEFORE_LOCKING = 2  # to make a change ready without the lock; others may be faster
_IDENTITY = ("st_dev", "st_ino", "st_mode", "st_size", "st_mtime_ns")  # of a file that has not been replaced or touched


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

    def change(self, task_id, edit, patience):
        """Calls `edit` with the task's record, empty if there is none, and keeps what it makes of it.

        Waits `patience` seconds for the lock. `edit` is called again when somebody else was faster.
        @throws LockTimeout, OSError
        """
        end = time.monotonic() + patience
        for _ in range(_TRIES_BEFORE_LOCKING):
            with contextlib.closing(_Rewrite(self.path)) as rewrite:
                if not rewrite.prepare(task_id, edit):
                    break
                with access_lock(self.path, end - time.monotonic()):
                    made = rewrite.make()
                if made:
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
        records = self._read()
        record = records.get(task_id)
        records[task_id] = record if isinstance(record, dict) else {}
        edit(records[task_id])
        files.replace(self.path, _json(records))

    def _read(self):
        """All records, none of them looked at. A file that nobody could read any more starts anew, as the daemon does
        when it starts; the old one is kept aside."""
        try:
            with files.open_regular(self.path) as file:
                records = json.loads(file.read().decode(errors="surrogateescape"), parse_constant=_refuse)
            if isinstance(records, dict):
                return records
        except FileNotFoundError:
            os.makedirs(os.path.dirname(self.path), exist_ok=True)
            return {}
        except (ValueError, RecursionError):
            pass
        syslog.syslog(syslog.LOG_ERR, f"{self.path} cannot be parsed, starting anew")
        with contextlib.suppress(OSError):
            os.replace(self.path, self.path + ".corrupt")
        return {}


class _Rewrite:
    """The status file with one record changed, made ready before the lock is taken: whoever polls tasks waits for the
    lock, and reading, writing and syncing many records takes its time. All other bytes stay as they are."""

    def __init__(self, path):
        self._path, self._file, self._successor = path, None, None

    def prepare(self, task_id, edit):
        """Returns False where it takes a look at the whole file, under the lock."""
        try:
            self._file = files.open_regular(self._path)  # kept open: its number belongs to no other file meanwhile
            self._seen = os.fstat(self._file.fileno())
            text = self._file.read()
            found = record_span.find(text, task_id)
            if found is None:
                return False
            start, end, record = found
            edit(record)
            whole = memoryview(text)
            self._successor = files.Successor(self._path, (whole[:start], _json(record), whole[end:]),
                                              stat.S_IMODE(self._seen.st_mode))
            return True
        except OSError:
            return False

    def make(self):
        """Puts it in place. Returns False when the file is not the one any more that it was made from."""
        try:
            there = os.stat(self._path)
            if any(getattr(there, name) != getattr(self._seen, name) for name in _IDENTITY):
                return False
            self._successor.take_place()
            return True
        except OSError:
            return False

    def close(self):
        if self._file:
            self._file.close()
        if self._successor:
            self._successor.close()


def _json(value):
    """Compact JSON that keeps even bytes which are not UTF-8 as they are."""
    try:
        text = json.dumps(value, separators=(",", ":"), allow_nan=False, ensure_ascii=False)
        return text.encode(errors="surrogateescape")
    except UnicodeEncodeError:
        return json.dumps(value, separators=(",", ":")).encode()


def _refuse(constant):
    raise ValueError(f"{constant} is not a JSON number")


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
            record = json.loads(row[0]) if row else {}
        except ValueError:
            record = {}
        record = record if isinstance(record, dict) else {}
        edit(record)
        text = json.dumps(record, separators=(",", ":"), allow_nan=False)
        database.execute("INSERT INTO tasks VALUES (?, ?) ON CONFLICT (id) DO UPDATE SET record = excluded.record",
                         (task_id, text))
        database.execute("COMMIT")
