"""Answers over HTTP that have to be complete in time."""

import http.client
import io
import time


class TimedResponse(http.client.HTTPResponse):
    """Gives up at a deadline, however the server spreads its bytes, those of the head included, and tells a body that
    ends before its announced length."""

    def __init__(self, sock, *args, deadline, **kwargs):
        super().__init__(sock, *args, **kwargs)
        self.fp.close()
        self.fp = io.BufferedReader(_TimedInput(sock, deadline))

    def read1(self, length):
        try:
            data = super().read1(length)
        except (http.client.HTTPException, ValueError) as error:
            raise OSError(f"not an answer in HTTP: {error!r:.200}") from error
        if not data and self.length:
            raise OSError(f"ended {self.length} bytes early")
        return data


class _TimedInput(io.RawIOBase):
    def __init__(self, sock, deadline):
        self._socket, self._deadline = sock, deadline
        self._timeout = sock.gettimeout()
        self._raw = sock.makefile("rb", buffering=0)

    def readable(self):
        return True

    def readinto(self, buffer):
        left = self._deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError("took too long")
        self._socket.settimeout(min(left, self._timeout))
        return self._raw.readinto(buffer)

    def close(self):
        self._raw.close()
        super().close()
