"""Depots: `index.json` names metadata files, which describe what the depot offers. All of it is untrusted."""

import io

from tessel_lifecycle.archive import ARCHIVE_ERRORS, ZipReader
from tessel_lifecycle.depot_notes import why_not_read
from tessel_lifecycle.document import Fields, list_of, parse, sha256, shallow, size, text
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.fetch import FetchError
from tessel_lifecycle.location import open_source
from tessel_lifecycle.metadata import KINDS, Catalogue, relative_path

INDEX = "index.json"
MOST_INDEX = 1 << 20
MOST_METADATA_FILES = 16
MOST_METADATA = 16 << 20   # one metadata file
MOST_DOCUMENT = 16 << 20   # one document in it
MOST_UNPACKED = 32 << 20   # all documents of a depot; they take five times as much memory


class _MetadataFile:
    def __init__(self, value):
        fields = Fields(value, "metadata")
        self.file = fields.take("file", relative_path)
        self.sha256, self.size = fields.take("sha256", sha256), fields.take("size", size)
        if self.size > MOST_METADATA:
            raise ValueError(f"{self.file} is larger than {MOST_METADATA} bytes")


class Depot:
    """A depot at a location; nothing is read before it is asked for."""

    def __init__(self, location, patience):
        self.location = location
        try:
            self.source = open_source(location, patience)
        except FetchError as error:
            raise _not_connected(error) from error

    def connect(self):
        """Reads the index and sets `vendor` and the list of metadata files. @throws ImageError"""
        try:
            data = self.source.read(INDEX, MOST_INDEX)
        except FetchError as error:
            raise _not_connected(error) from error
        try:
            fields = Fields(parse(data), INDEX)
            if fields.take("format", size) != 1:
                raise ValueError("unknown format")
            self.vendor = fields.take("vendor", text, "")
            self._metadata = fields.take("metadata", list_of(_MetadataFile, MOST_METADATA_FILES))
        except ValueError as error:
            url = self.source.url(INDEX)
            raise ImageError("MetadataFormatError", url, detail=error, notes=[Note("NotADepot", url, error)]) from error
        return self

    def catalogue(self, kinds=tuple(KINDS), on_progress=lambda fraction: None):
        """What the depot describes, of these kinds; `on_progress` hears which part is read. @throws ImageError"""
        self.connect()
        catalogue, unpacked = Catalogue(), 0
        done, size = 0, max(1, sum(entry.size for entry in self._metadata))

        def on_bytes(count):
            nonlocal done
            done += count
            on_progress(min(done / size, 1))

        for entry in self._metadata:
            url = self.source.url(entry.file)
            try:
                data = self.source.read(entry.file, entry.size, entry.sha256, on_bytes)
            except FetchError as error:
                raise ImageError("MetadataDownloadError", url, detail=error, notes=why_not_read(error)) from error
            try:
                unpacked += self._read(data, catalogue, kinds, MOST_UNPACKED - unpacked)
            except ARCHIVE_ERRORS as error:
                raise ImageError("MetadataFormatError", url, detail=error) from error
        return catalogue

    def _read(self, data, catalogue, kinds, most):
        read = 0
        with ZipReader(io.BytesIO(data)) as archive:
            for member in archive.names():
                folder, _, name = member.partition("/")
                if folder not in KINDS or "/" in name or name and not name.endswith(".json"):
                    raise ValueError(f"{member!r:.200} has no place in metadata")
                if name and folder in kinds:
                    content = archive.read(member, min(MOST_DOCUMENT, most - read))
                    read += len(content)
                    unit = KINDS[folder](shallow(parse(content)))
                    unit.depot = self
                    catalogue.add(unit)
        return read


def _not_connected(error):
    return ImageError("DepotConnectError", detail=error, notes=why_not_read(error))


def merged(depots, on_progress=lambda fraction: None):
    """One catalogue of several depots, the earlier ones first. @throws ImageError"""
    catalogue = Catalogue()
    for number, depot in enumerate(depots):
        def on_part(fraction, number=number):
            on_progress((number + fraction) / len(depots))
        catalogue.add_all(depot.catalogue(on_progress=on_part))
    return catalogue
