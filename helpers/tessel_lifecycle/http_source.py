"""A depot on an HTTP server (RFC 9110, RFC 9112)."""

import functools
import http.client
import ipaddress
import ssl
import urllib.parse

from tessel_lifecycle.fetch import Refused, Source
from tessel_lifecycle.timed_response import TimedResponse

MOST_REDIRECTS = 5
REDIRECTS = (301, 302, 303, 307, 308)
WORTH_REPEATING = (408, 425, 429)


class HttpSource(Source):
    """Asks for one file at a time on a connection of its own; knows no proxies, cookies or credentials."""

    is_local = False

    def open(self, name, offset, deadline):
        url = self.url(urllib.parse.quote(name))
        try:
            near = True  # the depot itself may be
            for _ in range(MOST_REDIRECTS + 1):
                response, near = self._ask(url, offset, deadline, near)
                if response.status not in REDIRECTS:
                    return self._accept(response, name, offset, deadline)
                url = _redirected(url, response)
        except http.client.HTTPException as error:
            raise OSError(f"not an answer in HTTP: {error!r:.200}") from error
        except ssl.SSLCertVerificationError as error:
            raise Refused(str(error)) from error
        except ValueError as error:
            raise Refused(f"redirected to something that is no URL: {error}") from error
        raise Refused("redirected too often")

    def _ask(self, url, offset, deadline, near_is_allowed):
        """The response, and whether it comes from this host or its link: no server elsewhere may send us there."""
        parts = urllib.parse.urlsplit(url)
        kind = http.client.HTTPSConnection if parts.scheme == "https" else http.client.HTTPConnection
        connection = kind(parts.hostname, parts.port, timeout=self.patience.timeout)
        connection.response_class = functools.partial(TimedResponse, deadline=deadline)
        connection.connect()
        near = _is_near(connection.sock.getpeername()[0])
        if near and not near_is_allowed:
            connection.close()
            raise Refused("redirected to this host or its link by a server that is not there")
        headers = {"User-Agent": "imagemanagerctl", "Accept-Encoding": "identity", "Connection": "close"}
        if offset:
            headers["Range"] = f"bytes={offset}-"
        connection.request("GET", (parts.path or "/") + ("?" + parts.query if parts.query else ""), headers=headers)
        return connection.getresponse(), near

    def _accept(self, response, name, offset, deadline):
        lengths = set(response.headers.get_all("Content-Length", ()))
        if len(lengths) > 1 or not all(length.isdecimal() for length in lengths):
            raise OSError(f"Content-Length {', '.join(lengths):.80}")  # RFC 9112, 6.3
        if response.status == 200:
            return response, 0
        content_range = response.getheader("Content-Range") or ""
        if offset and response.status == 206 and content_range.startswith(f"bytes {offset}-"):
            return response, offset
        response.close()
        if offset and response.status in (206, 416):
            return self.open(name, 0, deadline)
        kind = OSError if response.status >= 500 or response.status in WORTH_REPEATING else Refused
        error = kind(f"answered {response.status}")
        error.status = response.status
        raise error


def _is_near(address):
    address = ipaddress.ip_address(address.partition("%")[0])
    address = getattr(address, "ipv4_mapped", None) or address
    return address.is_loopback or address.is_link_local or address.is_unspecified


def _redirected(url, response):
    response.close()
    target = urllib.parse.urljoin(url, response.getheader("Location") or "")
    parts = urllib.parse.urlsplit(target)
    safe = {"https"} if url.startswith("https:") else {"http", "https"}
    if parts.scheme not in safe or not parts.hostname or "@" in parts.netloc or not target.isascii():
        raise Refused("redirected to something that is no depot's URL")
    return target
