"""What this host is and admits: its hardware, whom it trusts, and the least acceptance level of a PAX."""

import os

from tessel_lifecycle import files, paths, platform_file
from tessel_lifecycle.document import compact
from tessel_lifecycle.errors import TEXTS, ImageError, Note
from tessel_lifecycle.metadata import ACCEPTANCE_LEVELS
from tessel_lifecycle.signature import DIGEST, FORMAT, INVALID, STORE, Refusal
from tessel_lifecycle.trust import TrustStore, Voucher

# What a client is told for each kind of Refusal.
REFUSALS = {STORE: "PaxCertStoreError", DIGEST: "PaxSigDigestError", FORMAT: "PaxSigFormatError",
            INVALID: "PaxSigInvalidError"}

_DMI = "/sys/class/dmi/id/"


def least_acceptance_level():
    """`acceptance_level` of the host's preferences; without one everything is admitted. @throws ImageError"""
    level = _preferences().get("acceptance_level", ACCEPTANCE_LEVELS[-1]).upper()
    if level not in ACCEPTANCE_LEVELS:
        raise ImageError("AcceptanceGetError", detail=f"unknown level {ascii(level)[1:-1]}")
    return level


def _preferences():
    try:
        return platform_file.read(paths.PREFERENCES)
    except (OSError, ValueError) as error:
        raise ImageError("AcceptanceGetError", detail=error) from error


def _dmi(name):
    try:
        return files.read_bounded(_DMI + name, 4096).decode(errors="replace").strip()
    except (OSError, ValueError):
        return ""


class Admission:
    """What the host says of some PAXs that it takes: the level and signer of each, and Notes on what it takes although
    nobody vouches for it."""

    def __init__(self, paxs, vouchers, warnings):
        self._keys, self._vouchers, self.warnings = {pax.key for pax in paxs}, vouchers, warnings

    def __contains__(self, key):
        return key in self._keys

    def level(self, pax):
        """The acceptance level that a PAX is installed with."""
        voucher = self._vouchers.get(pax.key)
        return voucher.level if voucher else ACCEPTANCE_LEVELS[-1]

    def signed_by(self, pax):
        """The subject of the certificate that vouches for a PAX, or None."""
        voucher = self._vouchers.get(pax.key)
        return voucher and voucher.signed_by


def check_admitted(paxs):
    """Asks who vouches for PAXs of depots, and whether they are made for this hardware. Returns an Admission.

    @throws ImageError for what is below the host's acceptance level, or not what was signed; the first identifier of
    _OBJECTIONS that is among them
    """
    least, store = least_acceptance_level(), trust_store()
    answers = store.vouch_all((pax.signature, compact(pax.descriptor.document).encode()) for pax in paxs)
    objections, vouchers, doubts = {}, {}, []
    for pax, answer in zip(paxs, answers):
        found = _objection(pax, answer, least, store)
        if found:
            objections.setdefault(found[0], []).append((pax.label, found[1]))
        elif isinstance(answer, Voucher):
            vouchers[pax.key] = answer
        else:
            doubts.append((pax.label, answer))
    for identifier in _OBJECTIONS:
        if identifier in objections:
            _refuse(identifier, objections)
    _check_hardware(paxs)
    return Admission(paxs, vouchers, _warnings(doubts, not store.is_empty))


def check_levels(paxs):
    """Raises ImageError when InstalledPaxs were taken with less than what the host's acceptance level is by now.

    What was said of them then counts: the way back does not depend on how long certificates hold.
    """
    least = ACCEPTANCE_LEVELS.index(least_acceptance_level())
    refused = [pax.label for pax in paxs
               if ACCEPTANCE_LEVELS.index(pax.level if pax.signed_by else ACCEPTANCE_LEVELS[-1]) > least]
    if refused:
        raise ImageError("AcceptanceConfigError", detail=", ".join(refused))


def trust_store():
    """Whom this host trusts. @throws ImageError when the preferences cannot be read"""
    return TrustStore(paths.TRUST, _preferences().get("require_revocation_lists", "false").lower() == "true")


_MOST_TOLD = 5
_OBJECTIONS = (*REFUSALS.values(), "PaxSigMissingError", "AcceptanceConfigError")


def _objection(pax, answer, least, store):
    """Why a PAX is not taken: (identifier, Notes), or None."""
    is_open, level = least == ACCEPTANCE_LEVELS[-1], getattr(answer, "level", ACCEPTANCE_LEVELS[-1])
    if isinstance(answer, Refusal) and (answer.kind == DIGEST or not is_open):
        return REFUSALS[answer.kind], [answer.note(pax.label)]
    if answer is None and not is_open:
        return "PaxSigMissingError", [Note("PaxUnsigned", pax.label, least, paths.PREFERENCES)]
    if ACCEPTANCE_LEVELS.index(level) > ACCEPTANCE_LEVELS.index(least):
        return "AcceptanceConfigError", [
            Note("PaxLevelTooLow", pax.label, level, answer.signed_by, least, paths.PREFERENCES),
            *(refusal.note(pax.label) for refusal in answer.refusals)]
    foreign = next((file.path for file in pax.descriptor.files if file.type == "file" and file.mode & 0o6000), None)
    if foreign and level != ACCEPTANCE_LEVELS[0]:
        return "AcceptanceConfigError", [
            Note("PaxSetuid", pax.label, foreign, os.path.join(store.folder, ACCEPTANCE_LEVELS[0]))]
    return None


def _refuse(identifier, objections):
    """Raises the ImageError for all PAXs with one objection; what else is objected to is told behind it."""
    labels = [label for label, _ in objections[identifier]]
    told = [note for found in (objections.pop(identifier), *objections.values()) for _, notes in found
            for note in notes]
    arguments = [_listed(labels)] if "{1}" in TEXTS[identifier] else []
    raise ImageError(identifier, *arguments, detail=_listed(labels), notes=told[:_MOST_TOLD])


def _warnings(doubts, is_asked):
    """What is told of PAXs that are taken although nobody vouches for them; why, if there is somebody to ask."""
    if not doubts:
        return []
    refusals = [answer.note(label) for label, answer in doubts if answer is not None] if is_asked else []
    return [Note("PaxsTakenUnsigned", len(doubts), _listed([label for label, _ in doubts])), *refusals[:_MOST_TOLD]]


def _listed(labels):
    more = len(labels) - _MOST_TOLD
    return ", ".join(sorted(labels)[:_MOST_TOLD]) + (f" and {more} more" if more > 0 else "")


def _check_hardware(paxs):
    vendor, model = _dmi("sys_vendor"), _dmi("product_name")
    refused = [pax.label for pax in paxs if pax.descriptor.hardware_platforms
               and not any(v == vendor and m in ("", model) for v, m in pax.descriptor.hardware_platforms)]
    if refused:
        raise ImageError("PaxHwPlatformError", detail=", ".join(refused))
