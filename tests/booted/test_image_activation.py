"""The image as a part of a host that boots: what an apply reports is true of it, and of its next boot."""

import pytest

from booted_host import in_booted_host


@pytest.mark.parametrize("scenario", ["services", "failures", "administrators", "pending", "boots", "other_times",
                                      "kills"])
def test_the_host_becomes_what_is_applied(scenario):
    in_booted_host(f"python3 /repository/tests/booted/image_on_host.py {scenario}")
