"""Detached signatures (CMS, RFC 5652): made by openssl, and verified by it after a look at what they say.

Only what is looked for is taken: SignedData without content, and of each signer the signed attributes that hold the
digest of the content. Whether a signer can be trusted is not asked here.
"""

import contextlib
import hashlib
import os
import subprocess

from tessel_lifecycle import der
from tessel_lifecycle.certificate import Certificate, pem, pem_blocks
from tessel_lifecycle.errors import Note

_OPENSSL = "/usr/bin/openssl"
_TIMEOUT = 60  # seconds
_MOST_SIGNERS, _MOST_CERTIFICATES = 8, 32
_SIGNED_DATA, _DATA = der.oid("1.2.840.113549.1.7.2"), der.oid("1.2.840.113549.1.7.1")
_CONTENT_TYPE, _MESSAGE_DIGEST = der.oid("1.2.840.113549.1.9.3"), der.oid("1.2.840.113549.1.9.4")
_DIGESTS = {der.oid("2.16.840.1.101.3.4.2." + number): name
            for number, name in (("1", "sha256"), ("2", "sha384"), ("3", "sha512"))}

FORMAT, DIGEST, INVALID, STORE = "Format", "Digest", "Invalid", "Store"


class Refusal(Exception):
    """Why a signature is not taken.

    `kind` is FORMAT for one that cannot be read, DIGEST for one over other content, INVALID for one that is wrong or of
    somebody who is not trusted, and STORE when this host's own certificates or lists do not allow to tell.
    """

    def __init__(self, kind, name, *args):
        super().__init__(kind, name, *args)
        self.kind, self._name, self._args = kind, name, args

    def note(self, label):
        """Why, and what to do; `label` is what the signature is of."""
        return Note(self._name, label, *self._args)


class Signed:
    """A signature, taken apart. @throws ValueError for what is none"""

    def __init__(self, data):
        self.data = data
        fields = der.sole(data, der.SEQUENCE).items()
        if fields.take(der.OID).content != _SIGNED_DATA:
            raise ValueError("not SignedData")
        signed = der.sole(fields.take(der.context(0)).content, der.SEQUENCE).items()
        signed.take(der.INTEGER)
        signed.take(der.SET)
        content = signed.take(der.SEQUENCE).items()
        if content.take(der.OID).content != _DATA or content:
            raise ValueError("it holds content of its own")
        certificates = signed.optional(der.context(0))
        signed.optional(der.context(1))
        self.certificates = [Certificate(element.whole) for element in certificates.items().rest()
                             if element.tag == der.SEQUENCE] if certificates else []
        self._digests = [_digest(signer) for signer in signed.take(der.SET).items().rest()]
        if not 0 < len(self._digests) <= _MOST_SIGNERS or len(self.certificates) > _MOST_CERTIFICATES:
            raise ValueError("nobody signed, or too many")

    def is_over(self, content):
        """Whether each signer signed the digest of this content."""
        return all(hashlib.new(name, content).digest() == digest for name, digest in self._digests)


def _digest(signer):
    """The digest algorithm's name and the digest that a SignerInfo tells."""
    fields = signer.items()
    fields.take(der.INTEGER)
    fields.take(der.SEQUENCE, der.context(0, False))
    algorithm = fields.take(der.SEQUENCE).items().take(der.OID).content
    if algorithm not in _DIGESTS:
        raise ValueError("a digest that is not SHA-256, SHA-384 or SHA-512")
    attributes = {}
    for attribute in fields.take(der.context(0)).items().rest():
        parts = attribute.items()
        attributes.setdefault(parts.take(der.OID).content, []).append(parts.take(der.SET).content)
    (kind,), (digest,) = attributes.get(_CONTENT_TYPE, ()), attributes.get(_MESSAGE_DIGEST, ())
    if der.sole(kind, der.OID).content != _DATA:
        raise ValueError("signed as another type of content")
    return _DIGESTS[algorithm], der.sole(digest, der.OCTET_STRING).content


def signers(signed, content):
    """The certificates of those who signed the content, if all their signatures are right, else None.

    @throws OSError, subprocess.SubprocessError when openssl cannot tell
    """
    with contextlib.ExitStack() as stack:
        given, over, found = (_memory(stack, data) for data in (signed.data, content, b""))
        done = openssl("cms", "-verify", "-noverify", "-binary", "-inform", "DER", "-in", given, "-content", over,
                       "-out", "/dev/null", "-signer", found, "-no-CAfile", "-no-CApath", "-no-CAstore",
                       files=(given, over, found))
        if done.returncode:
            return None
        return [Certificate(encoded) for _, encoded in pem_blocks(_content(found))]


def verify_chain(path, moment, lists=()):
    """Whether a chain of certificates holds: (0, "", 0), or openssl's number and words for what is wrong and the place
    in the chain. With revocation lists, the first certificate is looked up in them.

    @param path  Certificates, each issued by the next; the last is trusted
    @param moment  the time at which it has to hold
    @throws OSError, subprocess.SubprocessError when openssl cannot tell
    """
    with contextlib.ExitStack() as stack:
        first, between, last = (_memory(stack, b"".join(pem(b"CERTIFICATE", c.der) for c in part))
                                for part in (path[:1], path[1:-1], path[-1:]))
        line = ["verify", "-partial_chain", "-purpose", "any", "-auth_level", "2", "-attime",
                str(int(moment.timestamp())), "-trusted", last]
        given = [first, between, last]
        if len(path) > 2:
            line += ["-untrusted", between]
        if lists:
            given.append(_memory(stack, b"".join(pem(b"X509 CRL", entry.der) for entry in lists)))
            line += ["-crl_check", "-CRLfile", given[-1]]
        done = openssl(*line, first, files=given)
        if done.returncode == 0 and done.stdout == f"{first}: OK\n".encode():
            return 0, "", 0
        return _first_error(done.stderr)


def _first_error(told):
    for line in told.decode(errors="replace").splitlines():
        words = line.split(maxsplit=6)
        if len(words) == 7 and words[0] == "error" and words[2] == "at" and words[4:6] == ["depth", "lookup:"]:
            return int(words[1]), words[6], int(words[3])
    return 1, "unspecified certificate verification error", 0


def sign(content, identities, chain=None):
    """A detached signature over `content` by each of the identities: (certificate's file, key's file descriptor).

    @param chain  a file with certificates to go along, or None
    @throws OSError, subprocess.SubprocessError, ValueError
    """
    with contextlib.ExitStack() as stack:
        given, keys = _memory(stack, content), [f"/dev/fd/{key}" for _, key in identities]
        line = ["cms", "-sign", "-binary", "-outform", "DER", "-md", "sha256", "-nosmimecap", "-in", given]
        for (certificate, _), key in zip(identities, keys):
            line += ["-signer", certificate, "-inkey", key]
        if chain:
            line += ["-certfile", chain]
        done = openssl(*line, files=(given, *keys))
    if done.returncode:
        raise ValueError("openssl cannot sign: " + done.stderr.decode(errors="replace").strip()[:1000])
    return done.stdout


def openssl(*words, files=(), **options):
    """Runs openssl with open files handed on, each named /dev/fd/N, and nothing of this process's environment."""
    return subprocess.run([_OPENSSL, *words], stdin=subprocess.DEVNULL, capture_output=True, timeout=_TIMEOUT,
                          pass_fds=[_number(name) for name in files], env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"},
                          **options)


def _memory(stack, content):
    """The name of a file with this content that lies in memory, and is gone with the stack."""
    descriptor = os.memfd_create("openssl", os.MFD_CLOEXEC)
    stack.callback(os.close, descriptor)
    with open(descriptor, "wb", closefd=False) as file:
        file.write(content)
    return f"/dev/fd/{descriptor}"


def _number(name):
    return int(name.rpartition("/")[2])


def _content(name):
    with open(_number(name), "rb", closefd=False) as file:
        file.seek(0)
        return file.read()
