"""Hosts that boot, each as fresh as the one before."""

import pathlib
import subprocess
import tempfile

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent.parent
_logs = tempfile.TemporaryDirectory(prefix="kestreld-booted-")
JOURNAL = pathlib.Path(_logs.name, "journal.log")  # of the last one, all its boots
REBOOT, CUT = 75, 76  # a script that ends so is run again after a boot, orderly or out of the blue


def in_booted_host(script, *options, seconds=300):
    """Runs a shell's lines in a host that has just booted and has the package; returns what they print.

    BOOT is the number of the boot, from 1: a script that ends with REBOOT or CUT is run again, with the next number.
    """
    done = subprocess.run([REPOSITORY / "tools/booted-host", "--logs", _logs.name, *options, "sh", "-euc", script],
                          text=True, stdin=subprocess.DEVNULL, capture_output=True, check=False, timeout=seconds)
    journal = JOURNAL.read_text(errors="replace")[-8000:] if JOURNAL.exists() else ""
    assert done.returncode == 0, f"{done.stdout}\n{done.stderr}\n{journal}"
    return done.stdout
