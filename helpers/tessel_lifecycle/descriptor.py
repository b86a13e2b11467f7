"""What a depot tells of a package: its descriptor, and the PAX that holds it."""

import base64
import functools
import hashlib
import json
import weakref

from tessel_lifecycle.document import Fields, flag, list_of, name, sha256, size, text
from tessel_lifecycle.metadata import MOST_SIGNATURE, Relation, Unit, acceptance_level
from tessel_lifecycle.payload import UNITS, PayloadFile, content_problem, unit_file, unit_name


class Descriptor(Unit):
    """The descriptor of a PAX.

    `services` are units in its payload that run while it is installed; without `live_install` its changes take effect
    when the host is rebooted, and with `maintenance_mode` the host must be in that while they are made.
    """

    folder = "descriptor"
    MOST_FILES, MOST_INSTALLED, MOST_SERVICES = 50000, 2 << 30, 100

    def read(self, fields):
        super().read(fields)
        self.summary = fields.take("summary", text, "")
        self.acceptance_level = fields.take("acceptance_level", acceptance_level)
        payload = fields.take("payload", lambda value: Fields(value, "payload"))
        self.payload_name = payload.take("name", name)
        self.payload_size, self.payload_sha256 = payload.take("size", size), payload.take("sha256", sha256)
        self.services = fields.take("services", list_of(unit_name, self.MOST_SERVICES), [])
        self.live_install = fields.take("live_install", flag, True)
        self.maintenance_mode = fields.take("maintenance_mode", flag, False)
        self.hardware_platforms = fields.take("hardware_platforms", list_of(_platform), [])
        self.depends = fields.take("depends", list_of(Relation), [])
        self.files = fields.take("files", list_of(PayloadFile, self.MOST_FILES))
        self.installed_size = sum(file.size for file in self.files if file.type == "file")
        if max(self.installed_size, self.payload_size) > self.MOST_INSTALLED:
            raise ValueError("payload is too large")
        problem = content_problem([self]) or self._unit_problem()
        if problem:
            raise ValueError(problem)

    def _unit_problem(self):
        files = {file.path for file in self.files}
        missing = [unit for unit in self.services if not files & {UNITS + unit, UNITS + unit_file(unit)}]
        return missing and f"{missing[0]} is not in {UNITS} of the payload"

    @functools.cached_property
    def identity(self):
        """A digest of all that the PAX brings."""
        return _identity(self.document)


def _identity(document):
    """The digest of a descriptor but for how the payload is packed, which a depot that was rebuilt from a host may do
    otherwise."""
    brought = {member: value for member, value in document.items() if member != "payload"}
    return hashlib.sha256(json.dumps(brought, sort_keys=True).encode()).hexdigest()


def _platform(value):
    fields = Fields(value, "platform")
    return fields.take("vendor", text), fields.take("model", text, "")


def signature(value):
    """A detached signature, given in base64, or None where there is none."""
    if value is None:
        return None
    if not isinstance(value, str) or len(value) > MOST_SIGNATURE * 4 // 3 + 4:
        raise ValueError("not a signature")
    return base64.b64decode(value, validate=True)


class Pax(Unit):
    """A PAX in a depot: the descriptor it must hold, who signed it, and its file's size and digest.

    Of one that is kept in a depot, the descriptor is read when it is asked for, and stays as long as it is used.
    """

    folder = "paxs"

    def read(self, fields):
        descriptor = fields.take("descriptor", Descriptor)
        self.name = descriptor.name
        if descriptor.version != self.version:
            raise ValueError("two versions for one PAX")
        self.size, self.sha256 = fields.take("size", size), fields.take("sha256", sha256)
        fields.take("signature", signature, None)
        self._descriptor = lambda: descriptor

    @property
    def signature(self):
        """The detached signature over the descriptor, or None. @throws ImageError when it cannot be read again"""
        return signature(self.document.get("signature"))

    def keep_in(self, stored):
        super().keep_in(stored)
        self._descriptor = _nothing

    @property
    def descriptor(self):
        """The descriptor. @throws ImageError when it cannot be read again"""
        found = self._descriptor()
        if found is None:
            found = Descriptor(self.document["descriptor"])
            found.keep_in(_DescriptorOf(self))
            self._descriptor = weakref.ref(found)
        return found

    @property
    def identity(self):
        """That of the descriptor, which is not read in full for it. @throws ImageError when it cannot be read again"""
        return _identity(self.document["descriptor"])

    @property
    def file(self):
        """Where the PAX's file lies in its depot."""
        return f"paxs/{self.name}-{self.version.text}.pax"


def _nothing():
    return None


class _DescriptorOf:
    """Where the descriptor of a PAX is kept: in that PAX's document."""

    digest = None

    def __init__(self, pax):
        self._pax = pax

    def document(self):
        return self._pax.document["descriptor"]
