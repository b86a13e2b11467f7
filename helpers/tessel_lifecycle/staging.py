"""The stage: PAXs that were downloaded and verified, and wait for being installed."""

import contextlib
import os

from tessel_lifecycle import files, pax
from tessel_lifecycle.depot_notes import why_not_read
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import ContentError, FetchError

_SPARE = 16 << 20  # bytes to leave free on the file system of the image


class Meter:
    """Turns bytes done into a percentage between `low` and `high` and tells it to `report`."""

    def __init__(self, report, low, high, total):
        self._report, self._low, self._span, self._total, self._done = report, low, high - low, max(total, 1), 0

    def add(self, count):
        self._done += count
        self._report(self._low + self._span * min(self._done / self._total, 1))


def stage(image, paxs, on_bytes=lambda count: None):
    """Downloads and verifies PAXs into the stage, as far as they are not there. Returns the bytes brought.

    `on_bytes` hears of the bytes that lie in the stage, and of a negative number when some came in vain: of all the
    PAXs' sizes in the end. @throws ImageError
    """
    brought = 0
    with installation_errors():
        os.makedirs(image.stage, exist_ok=True)
        for offered in paxs:
            path = staged(image, offered)
            if os.path.exists(path) and files.sha256(path) == offered.sha256:
                on_bytes(offered.size)
                continue
            check_space(image.stage, offered.size)
            _download(offered, path, on_bytes)
            brought += offered.size
        files.sync_directory(image.stage)
    return brought


def staged(image, offered):
    """Where a PAX lies in the stage; named by digest, so that what lies there is either it or not there."""
    return os.path.join(image.stage, offered.sha256 + ".pax")


def _download(offered, path, on_bytes):
    source = offered.depot.source
    try:
        source.download(offered.file, path, offered.size, offered.sha256, on_bytes)
        pax.verify(path, offered.descriptor, offered.signature)
    except ContentError as error:
        raise ImageError("PaxSigDigestError", offered.label, detail=error) from error
    except FetchError as error:
        raise ImageError("PaxDownloadError", error.url, detail=error, notes=why_not_read(error)) from error
    except ImageError:
        files.remove(path)
        raise


def check_space(directory, size):
    """Raises OSError when a file system has less than `size` bytes free, and some more."""
    status = os.statvfs(directory)
    if status.f_bavail * status.f_frsize < size + _SPARE:
        raise OSError(28, f"{size} bytes are needed", directory)


@contextlib.contextmanager
def installation_errors():
    """Tells an error of the disk as a failed installation."""
    try:
        yield
    except OSError as error:
        raise ImageError("InstallationError", detail=error) from error
