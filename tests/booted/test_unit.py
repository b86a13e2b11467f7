"""The daemon as the package brings it: installed, started by systemd, and confined to what it and its children need."""

import re

from booted_host import JOURNAL, in_booted_host

START = "systemctl start kestreld; "


def test_the_daemon_serves_when_its_start_is_told_to_be_complete():
    """Whoever starts it after that finds it, and so does whoever asks the services database for its port."""
    in_booted_host(START + """
        getent services kestreld | grep -q '942/tcp'
        python3 - <<END
import socket
for family, address in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")):
    socket.create_connection((address, 942), timeout=1).close()
END
        systemctl stop kestreld
        systemctl show --property=Result --value kestreld | grep -qx success""")


def test_the_whole_life_of_a_host_goes_on_under_the_unit():
    told = in_booted_host(START + "python3 /repository/tests/booted/whole_life.py")
    assert told.splitlines()[-1] == "all of it succeeded"
    refused = [line for line in JOURNAL.read_text().splitlines()
               if re.search(r"kestreld.*(not permitted|denied|SECCOMP|status=31)", line)]
    assert refused == []


def test_the_unit_takes_away_what_nobody_needs():
    told = in_booted_host(START + "systemd-analyze security --no-pager kestreld.service | tail -n 1")
    assert float(re.search(r"level for kestreld.service: ([0-9.]+)", told)[1]) <= 5.0
