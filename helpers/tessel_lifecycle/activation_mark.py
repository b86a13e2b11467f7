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

    `active` are the image's services that were up before, `boots` the number of boots begun since. `over` is the mark,
    as a document, that `previous` had then: it waited for a boot itself.
    """

    def __init__(self, bank, previous, task_id, operation, active, boot, phase=SWITCHING, boots=0, over=None):
        self.bank, self.previous, self.task_id, self.operation = bank, previous, task_id, operation
        self.active, self.boot, self.phase, self.boots, self.over = list(active), boot, phase, boots, over

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


def waiting(banks, bank):
    """The mark, as a document, of a running image that waits for a boot, with which `bank` is about to change places.

    When `bank` was made anew for that, there is no other to go back to any more. None if there is no such mark.
    """
    mark = read(banks)
    if mark is None or mark.phase != REBOOT or mark.boots or mark.bank != banks.current() or mark.bank == bank:
        return None
    return vars(mark) | {"previous": bank if banks.is_fit(bank) else mark.bank}


def withdraw(banks, mark):
    """Removes the mark of a bank that does not run any more, None if it had none. Returns the one that was there before
    it, which is put in its place, or None. @throws OSError"""
    if mark is None or mark.over is None:
        return remove(banks)
    before = Mark(**mark.over)
    before.write(banks)
    return before


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
