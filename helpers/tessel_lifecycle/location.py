"""Where a depot is: from the location that a client gave to the source that reads it."""

import urllib.parse

from tessel_lifecycle.fetch import LOCAL, FetchError, Source


def open_source(location, patience):
    """The source for a depot's location: an absolute path, a file:// or an http(s):// URL. @throws FetchError"""
    try:
        url = urllib.parse.urlsplit(location)
        if not location.isprintable() or url.query or url.fragment or "@" in url.netloc:
            raise ValueError("a depot's location has no credentials, query, fragment or control characters")
        if location.startswith("/") and not location.startswith("//"):
            return Source(location, LOCAL)
        if url.scheme == "file" and url.netloc in ("", "localhost") and url.path.startswith("/"):
            return Source(urllib.parse.unquote(url.path, errors="strict"), LOCAL)
        if url.scheme in ("http", "https") and url.hostname and url.port != 0 and location.isascii():
            from tessel_lifecycle.http_source import HttpSource
            return HttpSource(location, patience)
    except ValueError as error:
        raise FetchError(location, error) from None
    raise FetchError(location, "neither an absolute path nor a file or http URL")
