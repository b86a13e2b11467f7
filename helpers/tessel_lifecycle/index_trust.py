"""Whether a host takes a depot's index: who signed it, and for how long it holds.

An index that is older than one that was seen before is refused: who stands before a depot could else keep a host from
what is new for as long as an old index holds.
"""

import contextlib
import datetime
import fcntl
import os
import syslog

from tessel_lifecycle import files, host, paths
from tessel_lifecycle.clock import now, shown_time
from tessel_lifecycle.depot_index import INDEX, SIGNATURE
from tessel_lifecycle.document import Fields, compact, list_of, parse, text
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.fetch import FetchError
from tessel_lifecycle.metadata import ACCEPTANCE_LEVELS, MOST_SIGNATURE, date_time
from tessel_lifecycle.signature import DIGEST, STORE, Refusal
from tessel_lifecycle.trust import TrustStore

_AHEAD = datetime.timedelta(days=1)  # by which clocks may differ
_MOST_SEEN, _MOST_FILE = 500, 1 << 20
_LONGEST = 500  # characters of a location that is remembered


def check(source, read):
    """The bytes of a depot's index, if the host takes it: `read` reads them from `source`.

    What is wrong with its signature is told as of a PAX's. @throws ImageError

    At the level COMMUNITY an index may be unsigned, or signed by who is not trusted. One that is signed by who is
    trusted has to hold all the same.
    """
    data = read()
    least, store = _policy()
    is_open = least == ACCEPTANCE_LEVELS[-1]
    if is_open and store.is_empty:
        return data
    url = source.url(INDEX)
    try:
        signature = source.read(SIGNATURE, MOST_SIGNATURE)
    except FetchError as error:
        if is_open:
            return data
        raise ImageError("PaxSigMissingError", url, detail=error,
                         notes=[Note("IndexUnsigned", url, least, paths.PREFERENCES)]) from error
    try:
        data, voucher = _vouched(store, source, read, data, signature)
    except Refusal as refusal:
        if is_open and refusal.kind != DIGEST:
            return data
        arguments = () if refusal.kind == STORE else (url,)
        raise ImageError(host.REFUSALS[refusal.kind], *arguments, notes=[refusal.note(url)]) from refusal
    if ACCEPTANCE_LEVELS.index(voucher.level) > ACCEPTANCE_LEVELS.index(least):
        raise ImageError("AcceptanceConfigError", notes=[
            Note("IndexLevelTooLow", url, voucher.level, voucher.signed_by, least, paths.PREFERENCES),
            *(refusal.note(url) for refusal in voucher.refusals)])
    _check_time(url, data, voucher)
    return data


def _policy():
    """The least level and whom the host trusts. With preferences that cannot be read no package is admitted, and of the
    depot itself no more is asked than by default."""
    try:
        return host.least_acceptance_level(), host.trust_store()
    except ImageError:
        return ACCEPTANCE_LEVELS[-1], TrustStore(paths.TRUST)


def _vouched(store, source, read, data, signature):
    """An index and the Voucher for it. When the two do not fit they may have been replaced while they were read, and
    are read once more. @throws Refusal"""
    try:
        return data, store.vouch(signature, data)
    except Refusal as refusal:
        if refusal.kind != DIGEST:
            raise
    with contextlib.suppress(FetchError):
        signature, data = source.read(SIGNATURE, MOST_SIGNATURE), read()
    return data, store.vouch(signature, data)


def _check_time(url, data, voucher):
    try:
        fields = Fields(parse(data), INDEX)
        issued, valid_until = fields.take("issued", _moment), fields.take("valid_until", _moment)
    except ValueError as error:
        raise ImageError("MetadataFormatError", url, detail=error, notes=[Note("NotADepot", url, error)]) from error
    moment = now()
    if moment > valid_until:
        raise _outdated("IndexExpired", url, shown_time(valid_until), shown_time(moment))
    if issued > moment + _AHEAD:
        raise _outdated("IndexFromLater", url, shown_time(issued), shown_time(moment))
    try:
        newest = _remember(url[:_LONGEST], f"{voucher.signed_by}; {voucher.anchor}", shown_time(issued))
    except (OSError, ValueError) as error:
        syslog.syslog(syslog.LOG_WARNING, f"{paths.SEEN_INDEXES}: {error}")
        return
    if newest > shown_time(issued):
        raise _outdated("IndexOlder", url, shown_time(issued), voucher.signed_by, newest)


def _outdated(name, url, *args):
    return ImageError("MetadataDownloadError", url, notes=[Note(name, url, *args)])


def _moment(value):
    return datetime.datetime.fromisoformat(date_time(value))


def _remember(url, signer, issued):
    """The time of the newest index that was ever seen at a place, by this signer; this one's if that is newer."""
    folder = os.open(os.path.dirname(paths.SEEN_INDEXES), os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        fcntl.flock(folder, fcntl.LOCK_EX)
        known = _seen()
        newest = max(issued, known.get((url, signer), issued))
        if known.pop((url, signer), None) != newest or len(known) >= _MOST_SEEN:
            known[url, signer] = newest
            entries = [{"index": place, "signer": name, "issued": time} for (place, name), time in known.items()]
            content = compact({"format": 1, "seen": entries[-_MOST_SEEN:]}).encode()
            files.replace(paths.SEEN_INDEXES, content, 0o600)
        return newest
    finally:
        os.close(folder)


def _seen():
    """(index, signer) -> time, those that were changed last behind the others."""
    try:
        fields = Fields(parse(files.read_bounded(paths.SEEN_INDEXES, _MOST_FILE)), paths.SEEN_INDEXES)
    except FileNotFoundError:
        return {}
    return {(entry.take("index", text), entry.take("signer", text)): shown_time(entry.take("issued", _moment))
            for entry in fields.take("seen", list_of(Fields))}
