"""The host's service manager (systemd), asked through its own commands. None of them may take longer than its time.

What needs more than the daemon's unit leaves to its helpers is done by systemd itself, in units of their own.
"""

import os
import re
import subprocess
import time

PATIENCE = 30        # seconds for a command
_STOPPING = 100      # seconds for units to stop; most have 90 for it
_LOG_LINES, _LOG_SIZE = 10, 2000
_ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "SYSTEMD_COLORS": "0", "SYSTEMD_PAGER": ""}
_PROPERTIES = ("LoadState", "ActiveState", "SubState", "Result", "Type", "Job", "InvocationID", "NRestarts",
               "ConditionResult", "ExecMainStatus", "ActiveEnterTimestampMonotonic")
_UNPRINTABLE = re.compile(r"\x1b\[[0-9;?]*[ -/]*[@-~]|[^\t\n -~\u00a0-\U0010ffff]")


class ManagerError(Exception):
    """A command failed, or took too long; its text says why."""


def is_running():
    """Whether systemd manages this host (sd_booted(3))."""
    return os.path.isdir("/run/systemd/system")


def is_stopping():
    """Whether the host is going down: services end then, and that says nothing about them."""
    try:
        return _run("systemctl", "is-system-running", accept=range(5)).strip() == "stopping"
    except ManagerError:
        return False


class State:
    """What systemd tells of a unit."""

    def __init__(self, properties):
        def number(name):
            word = properties.get(name, "")
            return int(word) if word.isdecimal() else 0
        self.load, self.active = properties.get("LoadState", ""), properties.get("ActiveState", "")
        self.sub, self.result = properties.get("SubState", ""), properties.get("Result", "")
        self.is_oneshot, self.invocation = properties.get("Type") == "oneshot", properties.get("InvocationID", "")
        self.has_job, self.restarts = number("Job") != 0, number("NRestarts")
        self.conditions_hold, self.exit_status = properties.get("ConditionResult") != "no", number("ExecMainStatus")
        self.entered = number("ActiveEnterTimestampMonotonic")

    @property
    def is_masked(self):
        return self.load == "masked"

    @property
    def is_up(self):
        return self.active in ("active", "reloading")

    @property
    def is_stopping(self):
        return self.active == "deactivating"

    @property
    def text(self):
        if self.load not in ("loaded", ""):
            return self.load
        ended = f", exit status {self.exit_status}" if self.exit_status else ""
        return f"{self.active} ({self.sub}), result {self.result}{ended}"


def states(units):
    """Unit name -> State. @throws ManagerError"""
    units = list(units)
    if not units:
        return {}
    told = _run("systemctl", "show", "--property=" + ",".join(_PROPERTIES), "--", *units)
    blocks = [dict(line.partition("=")[::2] for line in block.splitlines()) for block in told.strip("\n").split("\n\n")]
    if len(blocks) != len(units):
        raise ManagerError(f"systemctl told of {len(blocks)} units instead of {len(units)}")
    return {unit: State(block) for unit, block in zip(units, blocks)}


def reload():
    """Has systemd read its units again. @throws ManagerError"""
    _run("systemctl", "daemon-reload", seconds=90)


def begin(verb, units):
    """Queues a job ("start", "restart") for each of these units and does not wait. @throws ManagerError"""
    if units:
        _run("systemctl", verb, "--no-block", "--no-ask-password", "--", *units)


def stop(units):
    """Stops units, patterns among them, and waits until they have. @throws ManagerError"""
    if units:
        _run("systemctl", "stop", "--no-ask-password", "--", *units, seconds=_STOPPING, accept=(0, 5))  # 5: not loaded


def reset_failures(units):
    """Has earlier failures, and the starts counted, forgotten."""
    if units:
        try:
            _run("systemctl", "reset-failed", "--", *units)
        except ManagerError:
            pass  # one that is not loaded has none


def run_outside(*command):
    """Runs a command as a unit of its own. @throws ManagerError"""
    _run("systemd-run", "--quiet", "--collect", "--wait", "--pipe", "--no-ask-password",
         "--property=RuntimeMaxSec=25", "--", *command)


def last_log_lines(unit, since):
    """What a unit and systemd about it logged last, since a time in seconds of the clock; plain text, bounded."""
    try:
        _run("journalctl", "--sync", seconds=5)
    except ManagerError:
        pass
    try:
        told = _run("journalctl", "--unit=" + unit, f"--since=@{int(since)}", f"--lines={_LOG_LINES}",
                    "--output=cat", "--no-pager", "--quiet", "--all", seconds=10)
    except ManagerError:
        return ""
    return _UNPRINTABLE.sub("", told).strip()[-_LOG_SIZE:]


def _run(*command, seconds=PATIENCE, accept=(0,)):
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=seconds,
                              env=_ENVIRONMENT, check=False)
    except subprocess.TimeoutExpired:
        raise ManagerError(f"{' '.join(command[:2])} took longer than {seconds} seconds") from None
    except OSError as error:
        raise ManagerError(f"{command[0]} cannot be run: {error.strerror}") from error
    if done.returncode not in accept:
        why = _UNPRINTABLE.sub("", done.stderr.decode(errors="replace")).strip()[-1000:]
        raise ManagerError(why or f"{' '.join(command[:2])} ended with {done.returncode}")
    return done.stdout.decode(errors="replace")


def pause():
    """Between two looks at what systemd does."""
    time.sleep(0.1)
