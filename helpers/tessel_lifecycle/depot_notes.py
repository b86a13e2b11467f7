"""Why a depot could not be read, in words that help who gave its location."""

import socket

from tessel_lifecycle.errors import Note
from tessel_lifecycle.fetch import TlsError
from tessel_lifecycle.location import InvalidLocation

_KINDS = (
    (InvalidLocation, "DepotLocationInvalid"), (socket.gaierror, "DepotNotResolved"),
    (ConnectionRefusedError, "DepotRefused"), (TimeoutError, "DepotTimedOut"), (TlsError, "DepotTlsFailed"))


def why_not_read(error):
    """The Notes for a FetchError."""
    reason = error.reason
    cause = getattr(reason, "__cause__", None)
    if getattr(reason, "status", None):
        return [Note("DepotHttpStatus", error.url, reason.status)]
    for found in (reason, cause):
        for kind, name in _KINDS:
            if isinstance(found, kind):
                return [Note(name, error.url, _text(found))]
    return [Note("DepotFileUnreadable", error.url, _text(cause if isinstance(cause, OSError) else reason))]


def _text(reason):
    return getattr(reason, "strerror", None) or str(reason)
