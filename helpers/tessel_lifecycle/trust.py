"""Whom the host trusts: the certificates and revocation lists of its administrator, and what they say of a signature.

    /etc/tessel/trust/LEVEL/*.pem    certificates; LEVEL is CERTIFIED, ACCEPTED, PARTNER or COMMUNITY
    /etc/tessel/trust/LEVEL/*.crl    revocation lists, in PEM or DER

What is signed has the level of the certificate that vouches for it, the best if there are several.
"""

import itertools
import os
import stat
import subprocess

from tessel_lifecycle import files, parallel
from tessel_lifecycle.certificate import Certificate, RevocationList, pem_blocks
from tessel_lifecycle.clock import now, shown_time
from tessel_lifecycle.metadata import ACCEPTANCE_LEVELS
from tessel_lifecycle.signature import DIGEST, FORMAT, INVALID, STORE, Refusal, Signed, signers, verify_chain

_MOST_FILES, _MOST_FILE = 200, 16 << 20
_MOST_PATHS, _LONGEST_PATH = 16, 5
_BATCH = 32  # contents that are in memory at once
# Numbers of openssl verify(1).
_NOT_YET_VALID, _EXPIRED, _REVOKED = 9, 10, 23
_LIST_NOT_YET_VALID, _LIST_EXPIRED = 11, 12
_OF_LISTS = {3, 5, 8, _LIST_NOT_YET_VALID, _LIST_EXPIRED, 15, 16, 33, 35, 36, 44, 54}


class Voucher:
    """That a signature is right: the level that it gives, who signed, and which trusted certificate that rests on.

    `refusals` say why it does not have a better level.
    """

    def __init__(self, level, path, refusals):
        self.level, self.signed_by, self.anchor, self.refusals = level, path[0].name, path[-1].name, refusals


class TrustStore:
    """The trusted certificates and revocation lists below a folder. `required`: every issuer has to have a list."""

    def __init__(self, folder, required=False):
        self.folder, self._required = folder, required
        self._anchors, self._lists, self._known = {}, [], {}
        self._problem = None
        try:
            for level in ACCEPTANCE_LEVELS:
                self._anchors[level] = self._read(os.path.join(folder, level))
        except Refusal as refusal:
            self._problem = refusal

    @property
    def is_empty(self):
        """Whether it has been left empty, and so no signature is asked about."""
        return self._problem is None and not any(self._anchors.values())

    def _read(self, folder):
        """The certificates in a folder; adds its lists to those of the others."""
        path, found = folder, []
        try:
            _check_owner(os.stat(folder))
            names = [name for name in sorted(os.listdir(folder)) if name.endswith((".pem", ".crl"))]
            if len(names) > _MOST_FILES:
                raise ValueError(f"more than {_MOST_FILES} files")
            for name in names:
                path = os.path.join(folder, name)
                data = files.read_bounded(path, _MOST_FILE)
                _check_owner(os.stat(path))
                if name.endswith(".crl"):
                    self._lists += [RevocationList(encoded) for _, encoded in _blocks(data, "X509 CRL")]
                else:
                    found += [Certificate(encoded) for _, encoded in _blocks(data, "CERTIFICATE")]
        except FileNotFoundError:
            pass
        except (OSError, ValueError) as error:
            raise Refusal(STORE, "TrustStoreUnreadable", path, getattr(error, "strerror", None) or error) from error
        return found

    def vouch(self, signature, content):
        """The Voucher for a signature over some bytes. @throws Refusal"""
        (answer,) = self.vouch_all([(signature, content)])
        if isinstance(answer, Refusal):
            raise answer
        return answer

    def vouch_all(self, items):
        """For each (signature, content), or (None, …) where there is none: a Voucher, a Refusal or None."""
        answers, items = [], iter(items)
        while batch := list(itertools.islice(items, _BATCH)):
            found = {}

            def ask(place, _, batch=batch, found=found):
                found[place] = self._signers(*batch[place])

            parallel.on_all_cores(ask, [place for place, (signature, _) in enumerate(batch) if signature is not None])
            answers += [self._answer(found.get(place)) for place in range(len(batch))]
        return answers

    def _signers(self, signature, content):
        """The certificates of those who signed and those that came along, or a Refusal."""
        try:
            signed = Signed(signature)
        except ValueError as error:
            return Refusal(FORMAT, "SignatureUnreadable", error)
        if not signed.is_over(content):
            return Refusal(DIGEST, "SignatureOfOther")
        if self._problem:
            return self._problem
        if self.is_empty:
            return Refusal(INVALID, "TrustStoreEmpty", self.folder)
        try:
            found = signers(signed, content)
        except (OSError, subprocess.SubprocessError, ValueError) as error:
            return _no_openssl(error)
        return (found, signed.certificates) if found else Refusal(INVALID, "SignatureWrong")

    def _answer(self, found):
        if found is None or isinstance(found, Refusal):
            return found
        key = tuple(tuple(certificate.der for certificate in part) for part in found)
        if key not in self._known:  # most of a depot is signed by one
            answers = [self._judged(signer, found[1]) for signer in found[0]]
            answers.sort(key=lambda answer: ACCEPTANCE_LEVELS.index(answer.level) if isinstance(answer, Voucher)
                         else len(ACCEPTANCE_LEVELS))
            self._known[key] = answers[0]
        return self._known[key]

    def _judged(self, signer, between):
        """The Voucher for one who signed, or a Refusal."""
        refusals = []
        try:
            if not signer.can_sign:
                return Refusal(INVALID, "SignerPurpose", signer.name)
            for level, anchors in self._anchors.items():
                for path in itertools.islice(_paths([signer], between, anchors), _MOST_PATHS):
                    refusal = self._objection(level, path)
                    if refusal is None:
                        return Voucher(level, path, refusals)
                    refusals.append(refusal)
        except ValueError as error:
            return Refusal(INVALID, "SignerRefused", signer.name, error)
        except (OSError, subprocess.SubprocessError) as error:
            return _no_openssl(error)
        issuer = "itself" if signer.is_self_issued else signer.issuer_name
        return refusals[0] if refusals else Refusal(INVALID, "SignerUnknown", signer.name, issuer, self.folder)

    def _objection(self, level, path):
        """Why a chain of certificates does not vouch for its first, as a Refusal, or None."""
        moment = now()
        number, words, depth = verify_chain(path, moment)
        if number:
            return self._refusal(path, depth, number, words, moment, ())
        for depth, certificate in enumerate(path[:-1]):
            lists = [entry for entry in self._lists if entry.issuer == certificate.issuer]
            if lists:
                number, words, more = verify_chain(path[depth:], moment, lists)
                if number:
                    return self._refusal(path, depth + more, number, words, moment, lists)
            elif self._required or certificate.names_revocation_list:
                return Refusal(STORE, "RevocationListMissing", path[0].name, certificate.issuer_name,
                               os.path.join(self.folder, level))
        return None

    def _refusal(self, path, depth, number, words, moment, lists):
        signer, certificate = path[0].name, path[min(depth, len(path) - 1)]
        if number in (_NOT_YET_VALID, _EXPIRED):
            return Refusal(INVALID, "SignerOutOfTime", signer, certificate.name, shown_time(certificate.not_before),
                           shown_time(certificate.not_after), shown_time(moment))
        if number == _REVOKED:
            return Refusal(INVALID, "SignerRevoked", signer, certificate.name, certificate.issuer_name)
        if number in (_LIST_NOT_YET_VALID, _LIST_EXPIRED):
            newest = max(lists, key=lambda entry: entry.issued)
            return Refusal(STORE, "RevocationListOld", signer, newest.issuer_name, shown_time(newest.issued),
                           newest.valid_until and shown_time(newest.valid_until), shown_time(moment), self.folder)
        if number in _OF_LISTS:
            return Refusal(STORE, "RevocationListRefused", signer, certificate.issuer_name, words)
        return Refusal(INVALID, "SignerRefused", signer, words)


def _paths(path, between, anchors):
    """The chains from a certificate to one that is trusted."""
    last = path[-1]
    if last in anchors:
        yield path
    elif len(path) < _LONGEST_PATH:
        yield from (path + [anchor] for anchor in anchors if anchor.subject == last.issuer and anchor.can_issue)
        for certificate in between:
            if certificate.subject == last.issuer and certificate not in path and certificate.can_issue:
                yield from _paths(path + [certificate], between, anchors)


def _blocks(data, label):
    """What a file of the store holds of one kind; a file without any is a mistake that is told."""
    if b"-----BEGIN" not in data and label == "X509 CRL":
        return [(label, data)]
    found = [(kind, encoded) for kind, encoded in pem_blocks(data) if kind == label]
    if not found:
        raise ValueError(f"no {label} in PEM is in it")
    return found


def _check_owner(status):
    """Who may write there decides whom the host trusts."""
    if status.st_uid not in (0, os.geteuid()) or status.st_mode & (stat.S_IWGRP | stat.S_IWOTH):
        raise ValueError("others than root may write to it")


def _no_openssl(error):
    return Refusal(STORE, "TrustStoreUnreadable", "openssl", error)
