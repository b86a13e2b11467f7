"""What a depot describes: base images, add-ons, components, solutions and manifests; packages are in descriptor.py.

Each class is built from its JSON document and raises ValueError for one that does not fit. The document can be had as
it came, so that it can be stored and handed on unchanged; that of a unit in a depot is read again for it, since there
may be more of them than fit into memory.
"""

import datetime
import re
import sys
import zlib

from tessel_lifecycle.document import Fields, compact, list_of, map_of, name, parse, text
from tessel_lifecycle.version import Range, Version

ACCEPTANCE_LEVELS = ("CERTIFIED", "ACCEPTED", "PARTNER", "COMMUNITY")  # from the strictest
MOST_SIGNATURE = 64 << 10

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
