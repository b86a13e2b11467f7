"""What a payload may hold: files, directories and symbolic links below one root, units of systemd among them."""

import re
import sys

from tessel_lifecycle.document import Fields, sha256, size, text

UNITS = "lib/systemd/system/"  # where a payload has its units

_UNIT_NAME = re.compile(r"[A-Za-z0-9:_.\\-]+(@[A-Za-z0-9:_.\\-]+)?\.service", re.ASCII)


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
        label = descriptor.label
        for file in descriptor.files:
            seen = directories if file.type == "directory" else owners
            if seen is owners and file.path in owners:
                return f"{file.path} is in {owners[file.path]} and {label}"
            seen[file.path] = label
    for path in [*owners, *directories]:
        parent = path if path in directories else path.rpartition("/")[0]
        while parent:
            if parent in owners:
                return f"{path} lies below {parent} of {owners[parent]}, which is no directory"
            parent = parent.rpartition("/")[0]
    return None


def unit_name(value):
    """The name of a service that systemd manages (systemd.unit(5))."""
    if not isinstance(value, str) or len(value) > 255 or not _UNIT_NAME.fullmatch(value):
        raise ValueError(f"not a service's name: {value!r:.80}")
    return value


def unit_file(unit):
    """The file that a unit is made from: that of its name, or its template's (systemd.unit(5))."""
    name, at, rest = unit.partition("@")
    return f"{name}@.{rest.rpartition('.')[2]}" if at else unit
