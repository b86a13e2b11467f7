"""Telling the host's services that their configuration has changed, where systemd runs them."""

import os
import subprocess

from tessel_module.program import Refusal

SECONDS = 20  # within the time limit of a module, with what it does besides


def restart(unit):
    """Restarts a service that runs; another finds its new configuration when it starts. @throws Refusal"""
    if _is(unit, "active"):
        _systemctl(unit, "restart", unit)


def take_masking(unit):
    """Has systemd see that a unit was masked or unmasked, and stop or start it accordingly. @throws Refusal"""
    if not _is_here():
        return
    _systemctl(unit, "daemon-reload")
    if _is(unit, "enabled"):
        _systemctl(unit, "restart", unit)
    elif _is(unit, "active"):
        _systemctl(unit, "stop", unit)


def _is_here():
    return os.path.isdir("/run/systemd/system")  # sd_booted(3)


def _is(unit, state):
    return _is_here() and _run(f"is-{state}", "--quiet", unit).returncode == 0


def _systemctl(unit, *words):
    try:
        done = _run(*words)
    except subprocess.TimeoutExpired:
        raise Refusal("com.tessel.modules.service", unit, f"no answer within {SECONDS} s") from None
    if done.returncode != 0:
        reason = done.stderr.strip() or f"exit status {done.returncode}"
        raise Refusal("com.tessel.modules.service", unit, reason)


def _run(*words):
    return subprocess.run(["/usr/bin/systemctl", *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True, errors="replace", timeout=SECONDS)
