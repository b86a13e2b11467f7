"""One GET with libcurl: what is asked, what is taken for an answer, and why there was none (RFC 9110)."""

import ipaddress
import os
import re
import socket
import time
import urllib.parse

import pycurl
from tessel_lifecycle.fetch import Refused, TlsError
from tessel_lifecycle.proxies import proxy_for

_MOST_HEAD = 64 << 10     # bytes of an answer's head
_MOST_IGNORED = 64 << 10  # bytes of a body that is read only to keep its connection

# Of curl/curl.h; pycurl has no names for them.
_SUPPRESS_CONNECT_HEADERS = 265
_QUICK_EXIT = 322  # does not wait for the thread that resolves a name

_OPTIONS = (
    (pycurl.PROTOCOLS, pycurl.PROTO_HTTP | pycurl.PROTO_HTTPS), (pycurl.NOSIGNAL, 1), (pycurl.NOPROXY, ""),
    (pycurl.USERAGENT, "imagemanagerctl"), (pycurl.HTTP_CONTENT_DECODING, 0), (pycurl.PATH_AS_IS, 1),
    (pycurl.PIPEWAIT, 1), (pycurl.BUFFERSIZE, 256 << 10), (_SUPPRESS_CONNECT_HEADERS, 1), (_QUICK_EXIT, 1))

_TLS_ERRORS = frozenset((
    pycurl.E_SSL_CONNECT_ERROR, pycurl.E_SSL_CERTPROBLEM, pycurl.E_SSL_CIPHER, pycurl.E_PEER_FAILED_VERIFICATION,
    pycurl.E_SSL_CACERT_BADFILE, pycurl.E_SSL_ISSUER_ERROR, pycurl.E_SSL_INVALIDCERTSTATUS))
_NO_HTTP = frozenset((
    pycurl.E_UNSUPPORTED_PROTOCOL, pycurl.E_FTP_WEIRD_SERVER_REPLY, pycurl.E_GOT_NOTHING, pycurl.E_HTTP2))


class Request:
    """Asks for a URL once; `content` takes what a good answer brings, behind what it has.

    No server elsewhere may send us to this host or its link: with `is_redirected_from_afar` nothing there is asked.
    Afterwards `status` and `location` are the answer's, `is_taken` tells whether its body came into `content`, `offset`
    from where it was asked for, and `is_near` whether it came from this host or its link.
    """

    def __init__(self, url, patience, content, is_redirected_from_afar=False):
        self._patience, self._content = patience, content
        self.is_redirected_from_afar = is_redirected_from_afar
        self.offset = content.have
        self.status, self.is_taken, self.is_near, self._fields = None, False, False, []
        self._is_begun, self._failure, self._head_size, self._ignored = False, None, 0, 0
        self._heard = self._window_begin = None
        self._window_bytes = 0
        self._proxy = proxy_for(url)
        self.handle = pycurl.Curl()
        self._configure(url)

    def _configure(self, url):
        handle = self.handle
        for option, value in _OPTIONS:
            handle.setopt(option, value)
        # Without TLS nobody offers HTTP/2, and to wait whether it is offered would cost a round trip.
        version = pycurl.CURL_HTTP_VERSION_2TLS if url.startswith("https:") else pycurl.CURL_HTTP_VERSION_1_1
        handle.setopt(pycurl.HTTP_VERSION, version)
        handle.setopt(pycurl.PROXY, self._proxy)  # an empty one keeps the caller's environment out
        handle.setopt(pycurl.CONNECTTIMEOUT_MS, int(self._patience.timeout * 1000))
        headers = ["Accept-Encoding: identity"]
        if self.offset:
            headers.append(f"Range: bytes={self.offset}-")
            if self._content.validator:
                headers.append(f"If-Range: {self._content.validator}")
        handle.setopt(pycurl.HTTPHEADER, headers)
        handle.setopt(pycurl.OPENSOCKETFUNCTION, self._open_socket)
        handle.setopt(pycurl.HEADERFUNCTION, lambda line: self._guarded(self._take_head, line))
        handle.setopt(pycurl.WRITEFUNCTION, lambda data: self._guarded(self._take_body, data))
        try:
            handle.setopt(pycurl.URL, url)
        except (pycurl.error, UnicodeError) as error:
            raise Refused(f"no URL: {error}") from error

    @property
    def location(self):
        """Where a redirection leads to."""
        return next(iter(self._values("location")), "")

    def overdue(self, now):
        """The error, if the answer has been silent or slow for too long; curl sees to the time of connecting."""
        if self._heard is None:
            if self.handle.getinfo(pycurl.PRETRANSFER_TIME) > 0:
                self._heard = self._window_begin = now
        elif now - self._heard > self._patience.timeout:
            return TimeoutError("timed out")
        elif now - self._window_begin > self._patience.limit:
            if self._window_bytes < self._patience.slowest * self._patience.limit:
                return TimeoutError("took too long")
            self._window_begin, self._window_bytes = now, 0
        return None

    def outcome(self, code, message):
        """What libcurl tells of the end: None for an answer, or the exception."""
        if self._failure:
            return self._failure
        if code and (self.is_taken or not self._is_begun):
            return self._error(code, message)
        self.is_near = not self._proxy and _is_near(self.handle.getinfo(pycurl.PRIMARY_IP))
        return None

    def _open_socket(self, _, address):
        if self.is_redirected_from_afar and not self._proxy and _is_near(address.addr[0]):
            self._failure = Refused("redirected to this host or its link by a server that is not there")
            return pycurl.SOCKET_BAD
        return socket.socket(address.family, address.socktype, address.protocol)

    def _guarded(self, take, data):
        self._heard = time.monotonic()
        self._window_begin = self._window_begin or self._heard
        try:
            take(data)
        except Exception as error:
            self._failure = error
        goes_on = not self._failure and self._ignored <= _MOST_IGNORED
        return len(data) if goes_on else 0

    def _take_head(self, line):
        self._head_size += len(line)
        if self._head_size > _MOST_HEAD:
            raise OSError(f"not an answer in HTTP: a head of more than {_MOST_HEAD} bytes")
        if self._is_begun:
            return  # a trailer
        if status := re.match(rb"HTTP/[\d.]+ +(\d{3})\b", line):
            self.status, self._fields = int(status[1]), []
        elif line.strip():
            name, _, value = line.decode("latin-1").partition(":")
            self._fields.append((name.lower(), value.strip()))
        elif self.status and self.status >= 200:
            self._begin()

    def _values(self, name):
        return [value for field, value in self._fields if field == name]

    def _begin(self):
        lengths = set(self._values("content-length"))
        if len(lengths) > 1 or not all(length.isdecimal() for length in lengths):
            raise OSError(f"Content-Length {', '.join(lengths):.80}")  # RFC 9112, section 6.3
        if self.status == 200 and self._content.have:
            self._content.restart()
        self._is_begun, self.is_taken = True, self.status == 200 or self.status == 206 and self._is_rest()
        if self.is_taken:
            tag = next(iter(self._values("etag")), "")
            self._content.validator = tag if re.fullmatch(r'"[\x21\x23-\x7e]*"', tag) else None

    def _is_rest(self):
        found = re.fullmatch(r"bytes (\d+)-(\d+)/(\d+|\*)", next(iter(self._values("content-range")), ""))
        total = str(self._content.most) if self._content.sha256 else found and found[3]
        return bool(found and self.offset and int(found[1]) == self.offset and found[3] in ("*", total))

    def _take_body(self, data):
        self._window_bytes += len(data)
        if self.is_taken:
            self._content.take(data)
        else:
            self._ignored += len(data)

    def _error(self, code, message):
        where = f"the proxy {_place(self._proxy)}: " if self._proxy else ""
        if code in (pycurl.E_COULDNT_RESOLVE_HOST, pycurl.E_COULDNT_RESOLVE_PROXY):
            return socket.gaierror(socket.EAI_NONAME, where + "Name or service not known")
        if code == pycurl.E_OPERATION_TIMEDOUT:
            return TimeoutError("timed out")
        if code == pycurl.E_URL_MALFORMAT:
            return Refused(message)
        if code in _TLS_ERRORS:
            kind = Refused if code == pycurl.E_PEER_FAILED_VERIFICATION else OSError
            error = kind(message)
            error.__cause__ = TlsError(message)
            return error
        if (answered := self.handle.getinfo(pycurl.HTTP_CONNECTCODE)) >= 300:
            return (OSError if answered >= 500 else Refused)(f"{where}answered {answered}")
        if number := self.handle.getinfo(pycurl.OS_ERRNO):
            return OSError(number, where + os.strerror(number))
        return OSError(f"not an answer in HTTP: {message:.200}" if code in _NO_HTTP else message)


def _is_near(address):
    address = ipaddress.ip_address(address.partition("%")[0])
    address = getattr(address, "ipv4_mapped", None) or address
    return address.is_loopback or address.is_link_local or address.is_unspecified


def _place(url):
    parts = urllib.parse.urlsplit(url)
    return f"{parts.hostname}:{parts.port or 1080}"
