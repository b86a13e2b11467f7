"""The host's time, and how messages and documents tell it."""

import datetime


def now():
    """The host's time."""
    return datetime.datetime.now(datetime.timezone.utc)


def shown_time(moment):
    """A time in UTC, to the second."""
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")
