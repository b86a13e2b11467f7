"""Helpers killed while they change the image of a host that boots. KILL_EVERY=1 kills at each of their calls, one after
the other, for which a way and a victim take about a quarter of an hour; by default at a few."""

import os
import sys

import pytest

from booted_host import REPOSITORY, in_booted_host

sys.path.insert(0, str(REPOSITORY / "tests"))

from fault_injection import build_library


@pytest.mark.parametrize("way, victim, step", [("apply", "worker", 27), ("apply", "both", 31), ("apply", "guard", 67),
                                               ("switch", "worker", 29), ("switch", "both", 37)])
def test_whoever_is_killed_at_whatever_call_the_host_runs_one_image_whole(way, victim, step):
    build_library(REPOSITORY / "build/booted")
    step = os.environ.get("KILL_EVERY", step)
    print(in_booted_host(f"STAY=0.5 python3 /repository/tests/booted/kill_matrix.py {way} {victim} {step}",
                         seconds=3600 if "KILL_EVERY" in os.environ else 300))
