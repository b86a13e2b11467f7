"""Runs in the host whose power is cut, and speaks for it over a serial line: takes one JSON value a line, answers with
one, and tells on its way what has happened."""

import glob
import json
import subprocess
import time
import traceback

import guest_checks
import guest_operations


class Line:
    """The serial line to who drives the emulator."""

    def __init__(self):
        while not (found := glob.glob("/dev/vport*p*")):
            time.sleep(0.1)
        self._file = open(found[0], "r+b", buffering=0)
        self._rest = b""

    def tell(self, **message):
        self._file.write(json.dumps(message).encode() + b"\n")

    def next(self):
        while b"\n" not in self._rest:
            data = self._file.read(1 << 16)
            if not data:
                time.sleep(0.02)  # nobody is at the other end
            self._rest += data
        text, _, self._rest = self._rest.partition(b"\n")
        return json.loads(text)


def system_state():
    done = subprocess.run(["systemctl", "is-system-running", "--wait"], stdout=subprocess.PIPE, text=True, check=False)
    return done.stdout.strip()


COMMANDS = {"prepare": guest_operations.prepare, "perform": guest_operations.perform, "look": guest_checks.look,
            "remember": guest_checks.remember}


def main():
    line = Line()
    while (state := system_state()) not in ("running", "degraded", "maintenance", "stopping"):
        time.sleep(0.5)  # where the processor is very slow, systemctl(1) gives up waiting
    line.tell(booted=state)
    while True:
        (command, argument), = line.next().items()
        try:
            line.tell(answer=COMMANDS[command](line.tell, argument))
        except Exception:
            line.tell(answer={"faults": [traceback.format_exc()]})


main()
