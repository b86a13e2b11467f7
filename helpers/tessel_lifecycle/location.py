"""Where a depot is: from the location that a client gave to the source that reads it."""

import re
import urllib.parse

from tessel_lifecycle.fetch import LOCAL, FetchError, Source

_AUTHORITY = re.compile(r"\s*(?:[^:/\\?#@]*:(?=[/\\]))?[/\\]*([^/\\?#]*)")


def has_credentials(location):
    """Whether a location may hold a user's name or password; only an absolute path can have an '@' as it likes.

    The daemon refuses the same ones.
    """
    if "@" not in location or location.startswith("/") and not location.startswith("//"):
        return False
    authority = _AUTHORITY.match(location)[1]
    port = authority.rpartition("]")[2].partition(":")[2]
    # A password may hold what ends an authority.
    return "@" in authority or bool(port) and not (port.isascii() and port.isdecimal())


def open_source(location, patience):
    """The source for a depot's location: an absolute path, a file:// or an http(s):// URL. @throws FetchError"""
    if has_credentials(location):
        raise FetchError("(a URL with credentials)", InvalidLocation("it must not hold a user's name or password"))
    try:
        url = urllib.parse.urlsplit(location)
        if not location.isprintable() or url.query or url.fragment:
            raise ValueError("a depot's location has no query, fragment or control characters")
        if location.startswith("/") and not location.startswith("//"):
            return Source(location, LOCAL)
        if url.scheme == "file" and url.netloc in ("", "localhost") and url.path.startswith("/"):
            return Source(urllib.parse.unquote(url.path, errors="strict"), LOCAL)
        if url.scheme in ("http", "https") and url.hostname and url.port != 0 and location.isascii():
            from tessel_lifecycle.http_source import HttpSource
            return HttpSource(location, patience)
    except ValueError as error:
        raise FetchError(location, InvalidLocation(error)) from None
    raise FetchError(location, InvalidLocation("neither an absolute path nor a file or http URL"))


class InvalidLocation(ValueError):
    """Why a location cannot be a depot's."""
