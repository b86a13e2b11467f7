"""What a depot describes: base images, add-ons, components, solutions, manifests and PAXs, and a catalogue of them.

Each class is built from its JSON document and raises ValueError for one that does not fit. The document can be had as
it came, so that it can be stored and handed on unchanged; that of a unit in a depot is read again for it, since there
may be more of them than fit into memory.
"""

import base64
import datetime
import functools
import hashlib
import json
import re
import sys
import weakref
import zlib

from tessel_lifecycle.document import Fields, compact, list_of, map_of, name, parse, sha256, size, text
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.version import Range, Version

UNITS = "lib/systemd/system/"  # where a payload has its units
ACCEPTANCE_LEVELS = ("CERTIFIED", "ACCEPTED", "PARTNER", "COMMUNITY")  # from the strictest
MOST_SIGNATURE = 64 << 10

_UNIT_NAME = re.compile(r"[A-Za-z0-9:_.\\-]+(@[A-Za-z0-9:_.\\-]+)?\.service", re.ASCII)
_DATE_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d{1,6})?Z", re.ASCII)


def date_time(value):
    """An ISO 8601 UTC date-time."""
    if not isinstance(value, str) or not _DATE_TIME.fullmatch(value):
        raise ValueError("not a date-time")
    datetime.datetime.fromisoformat(value)  # refuses the thirteenth month
    return value


def acceptance_level(value):
    """One of ACCEPTANCE_LEVELS."""
    if value not in ACCEPTANCE_LEVELS:
        raise ValueError("not an acceptance level")
    return value


class _Shared:
    """Makes one object of equal texts: metadata has the same names and versions again and again."""

    MOST = 1 << 16

    def __init__(self, kind):
        self._kind, self._made = kind, {}

    def __call__(self, value):
        if not isinstance(value, str):
            return self._kind(value)  # refuses it
        found = self._made.get(value)
        if found is None:
            if len(self._made) == self.MOST:
                self._made.clear()
            found = self._made[value] = self._kind(value)
        return found


_version, _range = _Shared(Version), _Shared(Range)
_name = _Shared(lambda value: sys.intern(name(value)))
_ANY = Range("*")


class Reference:
    """One exact version of a named thing."""

    __slots__ = ("name", "version")

    def __init__(self, document):
        fields = Fields(document, "reference")
        self.name, self.version = fields.take("name", _name), fields.take("version", _version)

    @property
    def key(self):
        return self.name, self.version


class Relation:
    """A named thing in any version of a range."""

    __slots__ = ("name", "range")

    def __init__(self, document):
        fields = Fields(document, "relation")
        self.name, self.range = fields.take("name", _name), fields.take("range", _range, _ANY)


class Unit:
    """What all described things have. `key` tells two of a kind apart.

    `depots` are those that have it, the first of which, `depot`, described it; there are none outside of depots.
    """

    folder = ""
    depots = ()

    def __init__(self, document):
        self._document, self.stored = document, None
        fields = Fields(document, self.folder)
        self.version = fields.take("version", _version)
        self.vendor = sys.intern(fields.take("vendor", text, ""))
        self.read(fields)
        fields.take("display_name", text, "")
        fields.take("display_version", text, "")

    def read(self, fields):
        self.name = fields.take("name", _name)

    @property
    def depot(self):
        return self.depots[0] if self.depots else None

    @property
    def document(self):
        """The document as it came. @throws ImageError when it cannot be read again"""
        return self._document if self.stored is None else self.stored.document()

    def keep_in(self, stored):
        """Forgets the document; `stored` has it, and its `digest`."""
        self._document, self.stored = None, stored

    def pack(self):
        """Keeps the document in a fraction of the memory, for units of which there are many."""
        self.keep_in(_Packed(self.document))

    def keep_name_only(self):
        """Forgets what only those need who install it."""

    def is_told_as(self, other):
        """Whether two units of a kind have the same document."""
        digests = [unit.stored and unit.stored.digest for unit in (self, other)]
        return None not in digests and digests[0] == digests[1] or self.document == other.document

    @property
    def key(self):
        return self.name, self.version

    @property
    def label(self):
        return f"{self.name}({self.version})"


class _Packed:
    """A document that is unpacked when it is needed."""

    digest = None

    def __init__(self, document):
        self._packed = zlib.compress(compact(document).encode(), 1)

    def document(self):
        return parse(zlib.decompress(self._packed))


class ReleaseUnit(Unit):
    """A base image, add-on or solution: two depots must not tell different things under one key."""

    def read(self, fields):
        super().read(fields)
        self.release_date = fields.take("release_date", date_time)


class BaseImage(ReleaseUnit):
    folder = "base_images"

    def read(self, fields):
        self.release_date = fields.take("release_date", date_time)
        self.components = fields.take("components", map_of(_version, _name))
        self.paxs = fields.take("paxs", list_of(Reference), [])

    def keep_name_only(self):
        self.components, self.paxs = {}, ()

    @property
    def key(self):
        return self.version

    @property
    def label(self):
        return self.version.text


class AddOn(ReleaseUnit):
    folder = "add_ons"

    def read(self, fields):
        super().read(fields)
        self.base_images = fields.take("base_images", _range)
        self.components = fields.take("components", map_of(_version, _name), {})
        self.removed_components = fields.take("removed_components", list_of(_name), [])


class Solution(ReleaseUnit):
    folder = "solutions"

    def read(self, fields):
        super().read(fields)
        self.components = fields.take("components", map_of(_range, _name))


class Manifest(Unit):
    """A hardware support package for some base images."""

    folder = "manifests"

    def read(self, fields):
        self.name = fields.take("id", name)
        self.manager, self.package = fields.take("manager", _name), fields.take("package", _name)
        self.base_images = fields.take("base_images", _range)
        self.components = fields.take("components", map_of(_version, _name))

    @property
    def key(self):
        return self.name


class Component(Unit):
    folder = "components"

    def read(self, fields):
        super().read(fields)
        self.paxs = fields.take("paxs", list_of(Reference))
        self.depends = fields.take("depends", list_of(Relation), ())
        self.conflicts = fields.take("conflicts", list_of(Relation), ())

    def keep_name_only(self):
        self.paxs = self.depends = self.conflicts = ()


class PayloadFile:
    """One file, directory or symbolic link of a payload. `path` is relative and has no '..'."""

    __slots__ = ("path", "type", "mode", "size", "target", "_digest")  # an image has a hundred thousand of these

    def __init__(self, document):
        fields = Fields(document, "file")
        self.path = fields.take("path", relative_path)
        self.type = sys.intern(fields.take("type", text))
        self.mode = fields.take("mode", size, 0o644)
        if self.type == "file":
            self.size, self._digest = fields.take("size", size), bytes.fromhex(fields.take("sha256", sha256))
        elif self.type == "link":
            self.target = fields.take("target", text)
            check_link(self.path, self.target)
        elif self.type != "directory":
            raise ValueError(f"{self.path}: a {self.type:.40} cannot be in a payload")
        if self.mode > 0o7777:
            raise ValueError(f"{self.path}: bad mode")
        self.mode = _MODES.setdefault(self.mode, self.mode)

    @property
    def sha256(self):
        return self._digest.hex()


_MODES = {}  # one number for all files that have it


def relative_path(value):
    """A path that stays below the folder it is taken from."""
    if not isinstance(value, str) or not 0 < len(value) <= 1000 or "\0" in value or value.startswith("/"):
        raise ValueError(f"not a relative path: {value!r:.80}")
    if any(part in ("", ".", "..") or len(part.encode()) > 255 for part in value.split("/")):
        raise ValueError(f"path leaves its folder or is not normal: {value!r:.80}")
    return value


def check_link(path, target):
    """Raises ValueError for a symbolic link at `path` whose target is absolute or climbs out of the payload.

    `..` may stand only at the front: behind a name it would climb from wherever that name, itself a link, leads.
    """
    parts = target.split("/")
    climbs = next((i for i, part in enumerate(parts) if part != ".."), len(parts))
    leaves = climbs > path.count("/") or any(part in ("", ".", "..") for part in parts[climbs:])
    if leaves or len(target) > 1000 or "\0" in target:
        raise ValueError(f"{path}: link leaves the payload")


def content_problem(descriptors):
    """Tells what keeps payloads from lying in one tree, or None: a file twice, or a file below a file or a link."""
    owners, directories = {}, {}
    for descriptor in descriptors:
        for file in descriptor.files:
            seen = directories if file.type == "directory" else owners
            if seen is owners and file.path in owners:
                return f"{file.path} is in {owners[file.path]} and {descriptor.label}"
            seen[file.path] = descriptor.label
    for path in [*owners, *directories]:
        parent = path if path in directories else path.rpartition("/")[0]
        while parent:
            if parent in owners:
                return f"{path} lies below {parent} of {owners[parent]}, which is no directory"
            parent = parent.rpartition("/")[0]
    return None


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
        """A digest of all that the PAX brings: of the document but for how the payload is packed, which a depot that
        was rebuilt from a host may do otherwise."""
        brought = {member: value for member, value in self.document.items() if member != "payload"}
        return hashlib.sha256(json.dumps(brought, sort_keys=True).encode()).hexdigest()


def unit_name(value):
    """The name of a service that systemd manages (systemd.unit(5))."""
    if not isinstance(value, str) or len(value) > 255 or not _UNIT_NAME.fullmatch(value):
        raise ValueError(f"not a service's name: {value!r:.80}")
    return value


def unit_file(unit):
    """The file that a unit is made from: that of its name, or its template's (systemd.unit(5))."""
    name, at, rest = unit.partition("@")
    return f"{name}@.{rest.rpartition('.')[2]}" if at else unit


def flag(value):
    """True or false."""
    if not isinstance(value, bool):
        raise ValueError("neither true nor false")
    return value


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


KINDS = {kind.folder: kind for kind in (BaseImage, AddOn, Component, Solution, Manifest, Pax)}


class Catalogue:
    """Everything that the depots in use, and perhaps the host's own image, describe."""

    def __init__(self):
        self.base_images, self.add_ons, self.solutions = {}, {}, {}
        self.manifests, self.components, self.paxs = {}, {}, {}
        self._by_name, self._indexed = {}, 0

    def add(self, unit):
        """Takes a unit of a depot. A PAX that was told before is taken from the first depot, and from this one, too, if
        it has the same file."""
        known = getattr(self, unit.folder).setdefault(unit.key, unit)
        if known is unit:
            return
        if isinstance(unit, Pax):
            if (known.size, known.sha256) == (unit.size, unit.sha256):
                known.depots = (*known.depots, *(depot for depot in unit.depots if depot not in known.depots))
            return
        if known.is_told_as(unit):
            return
        if isinstance(unit, ReleaseUnit):
            raise ImageError("ReleaseUnitConflictError", unit.label)
        raise ImageError("ComponentFormatError", detail=f"different descriptions of {unit.folder} {unit.label}")

    def add_all(self, other):
        """Takes the units of another depot's catalogue. @throws ImageError when the two contradict each other"""
        for unit in other.units():
            self.add(unit)

    def add_missing(self, other):
        """Takes from another catalogue what this one does not have."""
        for unit in other.units():
            getattr(self, unit.folder).setdefault(unit.key, unit)

    def units(self):
        """All units, kind by kind."""
        for folder in KINDS:
            yield from getattr(self, folder).values()

    def versions(self, component, allowed=Range("*")):
        """The components of a name in a range of versions, newest first."""
        if self._indexed != len(self.components):
            self._by_name, self._indexed = {}, len(self.components)
            for known in self.components.values():
                self._by_name.setdefault(known.name, []).append(known)
        return sorted((c for c in self._by_name.get(component, ()) if c.version in allowed),
                      key=lambda c: c.version, reverse=True)

    def manifests_of(self, manager, wanted):
        """The manifests of a hardware support package: of `wanted`'s package and version."""
        return [m for m in self.manifests.values()
                if (m.manager, m.package, m.version) == (manager, wanted.package, wanted.version)]
