"""The mark of an image that has not come up well yet: there from before `current` is switched to its bank until its
services are up, so that a crash in between is noticed by whoever comes next."""

import os
import syslog

from tessel_lifecycle import files
from tessel_lifecycle.banks import ACTIVATION, BANKS
from tessel_lifecycle.document import compact, parse

SWITCHING, REBOOT = "SWITCHING", "REBOOT"  # an activation is under way; a boot has to complete it

_MOST = 1 << 20


class Mark:
    """`bank` is being made the running one in place of `previous`, None if there was none, for a task.

    `active` are the image's services that were up before, `boots` the number of boots begun since.
    """

    def __init__(self, bank, previous, task_id, operation, active, boot, phase=SWITCHING, boots=0):
        self.bank, self.previous, self.task_id, self.operation = bank, previous, task_id, operation
        self.active, self.boot, self.phase, self.boots = list(active), boot, phase, boots

    def write(self, banks):
        """@throws OSError"""
        files.replace(_path(banks), compact(vars(self)).encode())

    def is_written(self, banks):
        """Whether this mark is there, or was: its bank runs."""
        there = read(banks)
        return (there is not None and vars(there) == vars(self)) or banks.current() == self.bank


def read(banks):
    """The mark, or None."""
    try:
        mark = Mark(**parse(files.read_bounded(_path(banks), _MOST)))
        if mark.bank in BANKS and mark.previous in (None, *BANKS):
            return mark
    except FileNotFoundError:
        return None
    except (OSError, ValueError, TypeError) as error:
        syslog.syslog(syslog.LOG_ERR, f"The mark of an activation cannot be read: {error}")
    return None


def remove(banks):
    """@throws OSError"""
    if os.path.lexists(_path(banks)):
        os.unlink(_path(banks))
        files.sync_directory(banks.directory)


def is_proved(banks, bank):
    """Whether a bank has been up well."""
    return os.path.exists(banks.path(bank, "proved"))


def prove(banks, bank):
    """Remembers that a bank has been up well, as long as there is the bank. @throws OSError"""
    if not is_proved(banks, bank):
        files.replace(banks.path(bank, "proved"), b"")


def _path(banks):
    return banks.path(ACTIVATION)
