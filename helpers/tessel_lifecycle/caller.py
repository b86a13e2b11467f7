"""On whose behalf a command runs: that of the call which started it, else of the account that it runs as."""

import os
import pwd


def user():
    """The account's name."""
    return os.environ.get("KESTRELD_USER") or _own_name()


def recorded():
    """What the record of a task tells of it."""
    peer = os.environ.get("KESTRELD_PEER")
    return {"user": user(), "peer": peer} if peer else {"user": user()}


def _own_name():
    try:
        return pwd.getpwuid(os.geteuid()).pw_name
    except KeyError:
        return str(os.geteuid())
