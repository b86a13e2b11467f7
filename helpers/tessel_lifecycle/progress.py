"""How far a task is: told by the time that is still to come, which is learned from the work itself."""

import threading
import time

# What a second brings before it was measured: bytes from a depot, unpacked, packed and read bytes, and seconds.
_RATES = {"download": 10e6, "unpack": 60e6, "pack": 5e6, "verify": 300e6, "activate": 1}
_LOW, _HIGH = 5, 99    # percent; what comes before is finding out what to do
_LEAST_MEASURED = 0.2  # seconds of work that tell something of its rate


class Progress:
    """Tells `report` a percentage.

    `stretches` are the parts of the work, one behind the other: name in _RATES -> how much there is to do. `add` may be
    called on any thread, the rest belongs to the task's. The percentage is that of the time spent among all the time
    that is spent and to come, at the rates seen so far; it never goes back, since `report` gets the highest there was.
    """

    def __init__(self, report, **stretches):
        self._report, self._highest = report, 0
        self._coming = {name: amount / _RATES[name] for name, amount in stretches.items()}
        self._amounts, self._lock = stretches, threading.Lock()
        self._spent, self._name, self._done, self._began = 0, None, 0, time.monotonic()

    def enter(self, name):
        """From here on a stretch is worked on, and the one before is done."""
        self._spent = self._spent_now()
        self._name, self._done, self._began = name, 0, time.monotonic()
        for earlier in list(self._coming)[:list(self._coming).index(name)]:
            self._coming[earlier] = 0
        self.tell()

    def add(self, count):
        """So much more of the stretch is done; a negative number was in vain."""
        with self._lock:
            self._done += count

    def add_and_tell(self, count):
        """As `add`, on the task's thread."""
        self.add(count)
        self.tell()

    def tell(self):
        """Reports how far the task is."""
        spent, coming = self._spent_now(), sum(self._coming.values())
        if self._name:
            coming += self._left_here() - self._coming[self._name]
        if spent + coming > 0:
            self._highest = max(self._highest, min(spent / (spent + coming), 1))
        self._report(_LOW + (_HIGH - _LOW) * self._highest)

    def _spent_now(self):
        return self._spent + (time.monotonic() - self._began if self._name else 0)

    def _left_here(self):
        """The time that the stretch still takes."""
        amount, here = self._amounts[self._name], time.monotonic() - self._began
        if self._done > 0 and here > _LEAST_MEASURED:
            return max(amount - self._done, 0) * here / self._done
        return max(amount - self._done, 0) / _RATES[self._name]
