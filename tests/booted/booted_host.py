"""Hosts that boot, each as fresh as the one before."""

import pathlib
import subprocess

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent.parent
JOURNAL = REPOSITORY / "build/booted/journal.log"  # of the last one


def in_booted_host(script, *options):
    """Runs a shell's lines in a host that has just booted and has the package; returns what they print."""
    done = subprocess.run([REPOSITORY / "tools/booted-host", *options, "sh", "-euc", script], text=True,
                          stdin=subprocess.DEVNULL, capture_output=True, check=False, timeout=300)
    journal = JOURNAL.read_text(errors="replace")[-8000:] if JOURNAL.exists() else ""
    assert done.returncode == 0, f"{done.stdout}\n{done.stderr}\n{journal}"
    return done.stdout
