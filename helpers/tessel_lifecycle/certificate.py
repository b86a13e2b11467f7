"""Certificates and revocation lists (RFC 5280): what is said of them to people, and what chains are looked for by.

Nothing here is proof: whether signatures, dates and lists are right is for openssl to say.
"""

import base64
import re

from tessel_lifecycle import der

_PEM = re.compile(rb"-----BEGIN (CERTIFICATE|TRUSTED CERTIFICATE|X509 CRL)-----\s(.*?)-----END \1-----", re.DOTALL)
_ATTRIBUTES = {der.oid(number): name for number, name in (
    ("2.5.4.3", "CN"), ("2.5.4.5", "serialNumber"), ("2.5.4.6", "C"), ("2.5.4.7", "L"), ("2.5.4.8", "ST"),
    ("2.5.4.10", "O"), ("2.5.4.11", "OU"), ("0.9.2342.19200300.100.1.25", "DC"),
    ("1.2.840.113549.1.9.1", "emailAddress"))}
_WIDE = {0x1E: "utf-16-be", 0x1C: "utf-32-be"}  # BMPString, UniversalString
_KEY_USAGE, _BASIC_CONSTRAINTS = der.oid("2.5.29.15"), der.oid("2.5.29.19")
_EXTENDED_KEY_USAGE, _DISTRIBUTION_POINTS = der.oid("2.5.29.37"), der.oid("2.5.29.31")
_CODE_SIGNING, _ANY_PURPOSE = der.oid("1.3.6.1.5.5.7.3.3"), der.oid("2.5.29.37.0")
_DIGITAL_SIGNATURE, _KEY_CERT_SIGN = 0, 5
MOST_SHOWN = 300  # characters of a name


class Certificate:
    """A certificate. `subject` and `issuer` are names as encoded, `name` and `issuer_name` as people read them."""

    def __init__(self, encoded):
        self.der = encoded
        outer = der.sole(encoded, der.SEQUENCE).items()
        fields = outer.take(der.SEQUENCE).items()
        fields.optional(der.context(0))  # version
        self.serial = fields.take(der.INTEGER).content
        fields.take(der.SEQUENCE)        # algorithm
        self.issuer = fields.take(der.SEQUENCE).whole
        validity = fields.take(der.SEQUENCE).items()
        self.not_before, self.not_after = (der.time(validity.take(der.UTC_TIME, der.GENERALIZED_TIME))
                                           for _ in range(2))
        self.subject = fields.take(der.SEQUENCE).whole
        fields.take(der.SEQUENCE)        # public key
        self.name, self.issuer_name = shown(self.subject), shown(self.issuer)
        fields.optional(der.context(1, False), der.context(1))
        fields.optional(der.context(2, False), der.context(2))
        extensions = fields.optional(der.context(3))
        self._extensions = _extensions(extensions) if extensions else {}

    def __eq__(self, other):
        return isinstance(other, Certificate) and self.der == other.der

    def __hash__(self):
        return hash(self.der)

    @property
    def is_self_issued(self):
        return self.subject == self.issuer

    @property
    def can_issue(self):
        """Whether it may vouch for other certificates, for the purpose of signing code."""
        constraints = self._extensions.get(_BASIC_CONSTRAINTS)
        is_ca = constraints and der.sole(constraints, der.SEQUENCE).items().optional(der.BOOLEAN)
        return (bool(is_ca) and is_ca.content != b"\0" and self._may(_KEY_CERT_SIGN)
                and bool(self._purposes({_CODE_SIGNING, _ANY_PURPOSE}) & {_CODE_SIGNING, _ANY_PURPOSE}))

    @property
    def can_sign(self):
        """Whether it is one for signing code: it says so, and its key may sign."""
        return self._may(_DIGITAL_SIGNATURE) and _CODE_SIGNING in self._purposes(set())

    @property
    def names_revocation_list(self):
        """Whether it says where a list of the revoked ones of its issuer is."""
        return _DISTRIBUTION_POINTS in self._extensions

    def _may(self, usage):
        value = self._extensions.get(_KEY_USAGE)
        if value is None:
            return True
        bits = der.sole(value, der.BIT_STRING).content
        return len(bits) > 1 and bool(bits[1] & 0x80 >> usage)

    def _purposes(self, unlimited):
        value = self._extensions.get(_EXTENDED_KEY_USAGE)
        return unlimited if value is None else {
            purpose.content for purpose in der.sole(value, der.SEQUENCE).items().rest()}


class RevocationList:
    """A list of revoked certificates: whose it is, and since and until when it holds (until: None if it does not say).
    """

    def __init__(self, encoded):
        self.der = encoded
        fields = der.sole(encoded, der.SEQUENCE).items().take(der.SEQUENCE).items()
        fields.optional(der.INTEGER)
        fields.take(der.SEQUENCE)
        self.issuer = fields.take(der.SEQUENCE).whole
        self.issuer_name = shown(self.issuer)
        self.issued = der.time(fields.take(der.UTC_TIME, der.GENERALIZED_TIME))
        until = fields.optional(der.UTC_TIME, der.GENERALIZED_TIME)
        self.valid_until = until and der.time(until)


def _extensions(element):
    found = {}
    for extension in element.items().take(der.SEQUENCE).items().rest():
        fields = extension.items()
        name = fields.take(der.OID).content
        fields.optional(der.BOOLEAN)
        if name in found:
            raise ValueError("certificate: an extension occurs twice")
        found[name] = fields.take(der.OCTET_STRING).content
    return found


def shown(name):
    """A name for people, its most special part first (RFC 4514)."""
    parts = []
    for group in der.sole(name, der.SEQUENCE).items().rest():
        for attribute in group.items().rest():
            fields = attribute.items()
            kind, value = fields.take(der.OID).content, fields.take()
            text = value.content.decode(_WIDE.get(value.tag, "utf-8"), errors="replace")
            text = "".join(c if c.isprintable() and c not in ",\\" else f"\\{ord(c):02x}" for c in text)
            parts.append(f"{_ATTRIBUTES.get(kind, kind.hex())}={text}")
    return ", ".join(reversed(parts))[:MOST_SHOWN] or "(a certificate without a name)"


def pem_blocks(data):
    """What a file in PEM (RFC 7468) holds of certificates and revocation lists: (label, DER)."""
    return [(label.decode(), base64.b64decode(text)) for label, text in _PEM.findall(data)]


def pem(label, encoded):
    """The PEM text of something in DER."""
    return b"-----BEGIN %s-----\n%s-----END %s-----\n" % (label, base64.encodebytes(encoded), label)
