"""A depot on an HTTP server: what is asked for again, gone on from, or followed elsewhere (RFC 9110)."""

import io
import os
import time
import urllib.parse

from tessel_lifecycle import files
from tessel_lifecycle.arriving import Arriving, DiskError, Unlike
from tessel_lifecycle.fetch import ContentError, FetchError, Refused, Source
from tessel_lifecycle.http_request import Request

MOST_REDIRECTS = 5
REDIRECTS = (301, 302, 303, 307, 308)
WORTH_REPEATING = (408, 425, 429)
LONGEST_PAUSE = 30  # seconds


class HttpSource(Source):
    """Knows no cookies and no credentials."""

    is_local = False

    def reading(self, name, most, sha256=None, on_bytes=lambda count: None):
        with io.BytesIO() as file:
            yield from self._bring(name, Arriving(file, most, sha256, on_bytes))
            return file.getvalue()

    def bringing(self, name, path, size, sha256, on_bytes=lambda count: None):
        part = path + ".part"
        try:
            with open(os.open(part, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600), "r+b", buffering=0) as file:
                content = Arriving(file, size, sha256, on_bytes)
                try:
                    yield from self._bring(name, content)
                except FetchError:
                    if not content.have:
                        files.remove(part)
                    raise
            os.rename(part, path)
        except DiskError as error:
            raise error.__cause__
        return content.received

    def _bring(self, name, content):
        """Fills `content`, however often it takes. What was gone on from in vain is begun anew once for nothing."""
        tries, is_anew = _Tries(self.patience, content.have), False
        while True:
            begun = time.monotonic()
            content.begin_try()
            try:
                if not content.is_whole:
                    yield from self._ask(name, content)
                content.check()
                return
            except Unlike as error:
                was_kept = content.kept
                content.restart()
                if was_kept and not is_anew:
                    is_anew = True
                    continue
                failure = ContentError(self.url(name), error)
            except OSError as error:
                failure = FetchError(self.url(name), error)
            pause = tries.failed(content.have, time.monotonic() - begun)
            if pause is None or isinstance(failure.reason, Refused):
                content.withdraw()
                raise failure from failure.reason
            yield pause

    def _ask(self, name, content):
        """One try, with its redirections."""
        url, is_afar = self.url(urllib.parse.quote(name)), False
        for _ in range(MOST_REDIRECTS + 1):
            request = Request(url, self.patience, content, is_afar)
            yield request
            if request.status not in REDIRECTS:
                break
            url, is_afar = _redirected(url, request), not request.is_near
        else:
            raise Refused("redirected too often")
        if request.is_taken:
            return
        if request.offset and request.status in (206, 416):
            content.restart()
            yield from self._ask(name, content)
            return
        kind = OSError if request.status >= 500 or request.status in WORTH_REPEATING else Refused
        error = kind(f"answered {request.status}")
        error.status = request.status
        raise error


class _Tries:
    """Counts the tries of one file that were in vain, since the last that was not."""

    def __init__(self, patience, have):
        self._patience, self._most, self._in_vain, self._pause = patience, have, 0, patience.pause

    def failed(self, have, seconds):
        """How long to wait before the next try; None when there is to be none."""
        if have - self._most >= self._patience.slowest * max(1, seconds):
            self._in_vain, self._pause = 0, self._patience.pause
        else:
            self._in_vain += 1
        self._most = max(self._most, have)
        if self._in_vain >= self._patience.attempts:
            return None
        pause, self._pause = self._pause, min(2 * self._pause, LONGEST_PAUSE)
        return pause


def _redirected(url, request):
    try:
        target = urllib.parse.urljoin(url, request.location)
        parts = urllib.parse.urlsplit(target)
    except ValueError as error:
        raise Refused(f"redirected to something that is no URL: {error}") from error
    safe = {"https"} if url.startswith("https:") else {"http", "https"}
    if parts.scheme not in safe or not parts.hostname or "@" in parts.netloc or not target.isascii():
        raise Refused("redirected to something that is no depot's URL")
    return target
