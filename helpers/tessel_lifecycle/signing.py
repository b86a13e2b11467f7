"""Keys and certificates that sign: what build-depot is given."""

import contextlib
import os

from tessel_lifecycle.certificate import Certificate, pem_blocks
from tessel_lifecycle.files import read_bounded
from tessel_lifecycle.signature import openssl, sign

_MOST = 1 << 20


class Signer:
    """Signs with keys of which openssl can read the files. Use in a with statement.

    A key that is protected is opened once; its plain form is never in a file.
    """

    def __init__(self, keys, certificates, chain, passphrase):
        """@param passphrase  called with the name of a protected key's file; returns bytes

        @throws ValueError for a certificate that nobody would take signatures of, or a key that cannot be read, OSError
        """
        self._chain, self._opened = chain, contextlib.ExitStack()
        with contextlib.ExitStack() as stack:
            stack.push(self._opened)
            self._identities = [(certificate, self._open(key, passphrase))
                                for key, certificate in zip(keys, certificates, strict=True)]
            for certificate in certificates:
                _check(certificate)
            stack.pop_all()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._opened.close()

    def __call__(self, content):
        """A detached signature over some bytes. @throws ValueError"""
        return sign(content, self._identities, self._chain)

    def _open(self, path, passphrase):
        """The descriptor of a file in memory with the plain key."""
        plain = os.memfd_create("key", os.MFD_CLOEXEC)
        self._opened.callback(os.close, plain)
        name, given = f"/dev/fd/{plain}", []
        if b"ENCRYPTED" in read_bounded(path, _MOST):
            receiving, sending = os.pipe2(os.O_CLOEXEC)
            self._opened.callback(os.close, receiving)
            with open(sending, "wb") as file:
                file.write(passphrase(path)[:4096] + b"\n")
            given = ["-passin", f"fd:{receiving}"]
        done = openssl("pkey", "-in", path, "-out", name, *given,
                       files=[name] + [f"/dev/fd/{word[3:]}" for word in given[1:]])
        if done.returncode:
            raise ValueError(f"{path}: no private key that can be read, or not its passphrase")
        return plain


def _check(path):
    certificates = [encoded for label, encoded in pem_blocks(read_bounded(path, _MOST)) if label == "CERTIFICATE"]
    if not certificates:
        raise ValueError(f"{path}: no certificate in PEM is in it")
    if not Certificate(certificates[0]).can_sign:
        raise ValueError(f"{path}: no host takes signatures of this certificate, which is not for signing code "
                         "(extendedKeyUsage codeSigning, and keyUsage, if it has one, digitalSignature)")
