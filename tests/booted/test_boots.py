"""What of a host lasts from boot to boot, however it went down."""

import pytest

from booted_host import CUT, JOURNAL, REBOOT, in_booted_host


@pytest.mark.parametrize("end", [REBOOT, CUT])
def test_the_daemon_comes_up_again_with_its_state(end):
    told = in_booted_host(f"""
        [ $BOOT != 1 ] || systemctl --quiet enable --now kestreld
        systemctl is-active --quiet kestreld && echo $BOOT >>/var/tessel/boots && logger boot $BOOT && journalctl --sync
        test ! -e /run/mark && touch /run/mark
        [ $BOOT = 3 ] || exit {end}
        cat /var/tessel/boots""")
    assert told.split() == ["1", "2", "3"]
    assert all(f"boot {number}\n" in JOURNAL.read_text() for number in (1, 2, 3))
