"""The stage: PAXs that were downloaded and verified, and wait for being installed."""

import contextlib
import os

from tessel_lifecycle import files, pax
from tessel_lifecycle.depot_notes import why_not_read
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import ContentError, FetchError
from tessel_lifecycle.image import sync_file_system
from tessel_lifecycle.space import Need, Room, of_downloads
from tessel_lifecycle.transfers import run, undisturbed


def stage(image, paxs, on_bytes=lambda count: None):
    """Downloads and verifies PAXs into the stage, as far as they are not there. Returns how many bytes came.

    `on_bytes` hears of the bytes that lie in the stage, and of a negative number when some came in vain: of all the
    PAXs' sizes in the end. What came before a failure stays, and is gone on from by the next call. @throws ImageError
    """
    with installation_errors():
        os.makedirs(image.stage, exist_ok=True)
        missing = []
        for offered in paxs:
            path = staged(image, offered)
            if os.path.exists(path) and files.sha256(path) == offered.sha256:
                on_bytes(offered.size)
            else:
                missing.append((offered, path))
        if not missing:
            return 0
        Room(image).check_free(Need(of_downloads(image, [offered for offered, _ in missing])))
        last = set()
        with _Verification() as verification:
            brought = sum(run(_bring(*each, on_bytes, last, verification) for each in missing))
            verification.finish()
        sync_file_system(image.stage)
    return brought


def staged(image, offered):
    """Where a PAX lies in the stage; named by digest, so that what lies there is either it or not there."""
    return os.path.join(image.stage, offered.sha256 + ".pax")


def _bring(offered, path, on_bytes, last, verification):
    """Brings a PAX from the first of its depots that has it. Those in `last`, which did not answer for another PAX, are
    asked when no other has it."""
    failures = []
    for depot in sorted(offered.depots, key=last.__contains__):
        try:
            brought = yield from depot.source.bringing(offered.file, path, offered.size, offered.sha256, on_bytes)
        except FetchError as error:
            failures.append(error)
            if not isinstance(error, ContentError) and getattr(error.reason, "status", 500) >= 500:
                last.add(depot)
            continue
        verification.begin(offered, path)
        return brought
    raise _not_brought(offered, failures) from failures[0]


class _Verification:
    """Verifies PAXs that have come, in a thread of its own, beside those that come."""

    def __init__(self):
        from concurrent.futures import ThreadPoolExecutor
        self._pool, self._begun = ThreadPoolExecutor(1), []

    def begin(self, offered, path):
        with undisturbed():
            self._begun.append(self._pool.submit(_verify, offered, path))

    def finish(self):
        """Raises ImageError when one was not as described; it is gone then."""
        for verified in self._begun:
            verified.result()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._pool.shutdown()  # what has come is verified or gone, however the rest ends


def _verify(offered, path):
    try:
        pax.verify(path, offered.descriptor, offered.signature)
    except ImageError:
        files.remove(path)
        raise


def _not_brought(offered, failures):
    if isinstance(failures[0], ContentError):
        return ImageError("PaxSigDigestError", offered.label, detail=failures[0])
    notes = [note for failure in failures for note in why_not_read(failure)]
    return ImageError("PaxDownloadError", failures[0].url, detail=failures[0], notes=notes)


@contextlib.contextmanager
def installation_errors():
    """Tells an error of the disk as a failed installation."""
    try:
        yield
    except OSError as error:
        raise ImageError("InstallationError", detail=error) from error
