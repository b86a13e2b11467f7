"""Depots: `index.json` names metadata files, which describe what the depot offers. All of it is untrusted."""

import contextlib
import gc
import hashlib
import os

from tessel_lifecycle import paths, platform_file
from tessel_lifecycle.archive import ARCHIVE_ERRORS
from tessel_lifecycle.catalogue import KINDS, Catalogue
from tessel_lifecycle.depot_index import INDEX
from tessel_lifecycle.depot_notes import why_not_read
from tessel_lifecycle.document import Fields, list_of, parse, sha256, shallow, size, text
from tessel_lifecycle.document_archive import DocumentArchive
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.fetch import FetchError
from tessel_lifecycle.location import open_source
from tessel_lifecycle.metadata_cache import MetadataCache
from tessel_lifecycle.payload import relative_path

MOST_INDEX = 1 << 20
MOST_METADATA_FILES = 16
MOST_METADATA = 256 << 20  # bytes of all metadata files of a depot as they lie there, and of their documents unpacked
MOST_DOCUMENTS = 200000    # of a depot
MOST_VALUES = 1 << 20      # in one document: each takes up to a hundred bytes of memory, however short it is


def check_index(source, read):
    """The bytes of a depot's index, if the host takes it: `read` reads them from `source`. @throws ImageError"""
    if _is_anything_taken():
        return read()
    from tessel_lifecycle import index_trust  # takes long to load, and callers of inline commands wait
    return index_trust.check(source, read)


def _is_anything_taken():
    try:
        level = platform_file.read(paths.PREFERENCES).get("acceptance_level", "COMMUNITY")
    except (OSError, ValueError):
        level = "COMMUNITY"  # no package is admitted then, and of the depot itself no more is asked
    return level.upper() == "COMMUNITY" and not os.path.exists(paths.TRUST)


class _MetadataFile:
    def __init__(self, value):
        fields = Fields(value, "metadata")
        self.file = fields.take("file", relative_path)
        self.sha256, self.size = fields.take("sha256", sha256), fields.take("size", size)


class Depot:
    """A depot at a location; nothing is read before it is asked for."""

    def __init__(self, location, patience, cache=MetadataCache(), check=check_index):
        """@param cache  where metadata that was brought from afar is kept

        @param check  gives out the index, as check_index does, if this host takes it
        """
        self.location, self._cache, self._check = location, cache, check
        try:
            self.source = open_source(location, patience)
        except FetchError as error:
            raise _not_connected(error) from error

    def connect(self):
        """Reads the index and sets `vendor` and the list of metadata files. @throws ImageError"""
        try:
            data = self._check(self.source, lambda: self.source.read(INDEX, MOST_INDEX))
        except FetchError as error:
            raise _not_connected(error) from error
        try:
            fields = Fields(parse(data), INDEX)
            if fields.take("format", size) != 1:
                raise ValueError("unknown format")
            self.vendor = fields.take("vendor", text, "")
            self._metadata = fields.take("metadata", list_of(_MetadataFile, MOST_METADATA_FILES))
            if sum(entry.size for entry in self._metadata) > MOST_METADATA:
                raise ValueError(f"more than {MOST_METADATA} bytes of metadata")
        except ValueError as error:
            url = self.source.url(INDEX)
            raise ImageError("MetadataFormatError", url, detail=error, notes=[Note("NotADepot", url, error)]) from error
        return self

    def fetch(self, on_progress=lambda fraction: None):
        """Reads the index and brings the metadata files; `on_progress` hears which part is here. @throws ImageError"""
        self.connect()
        done, size = 0, max(1, sum(entry.size for entry in self._metadata))

        def on_bytes(count):
            nonlocal done
            done += count
            on_progress(min(done / size, 1))

        for entry in self._metadata:
            url = self.source.url(entry.file)
            try:
                entry.opened = self._cache.open(self.source, entry.file, entry.size, entry.sha256, on_bytes)
            except FetchError as error:
                raise ImageError("MetadataDownloadError", url, detail=error, notes=why_not_read(error)) from error
        return self

    def read(self, kinds=tuple(KINDS), on_progress=lambda fraction: None, names_only=False):
        """What the fetched metadata describes, of these kinds. @throws ImageError

        @param names_only  whether names and versions are enough; the rest is checked and forgotten
        """
        catalogue, documents, size = Catalogue(), 0, 0
        done, whole = 0, max(1, sum(entry.size for entry in self._metadata))
        with _without_collector():
            for entry in self._metadata:
                url = self.source.url(entry.file)
                try:
                    archive = DocumentArchive(entry.opened)
                    documents, size = documents + archive.count, size + archive.size
                    if documents > MOST_DOCUMENTS or size > MOST_METADATA:
                        raise ValueError(f"more than {MOST_METADATA} bytes or {MOST_DOCUMENTS} documents in all")
                    for unit, part in self._units(StoredFile(url, archive), kinds):
                        if names_only:
                            unit.keep_name_only()
                        catalogue.add(unit)
                        on_progress((done + part * entry.size) / whole)
                except ARCHIVE_ERRORS as error:
                    raise ImageError("MetadataFormatError", url, detail=error) from error
                done += entry.size
        return catalogue

    def catalogue(self, kinds=tuple(KINDS), on_progress=lambda fraction: None):
        """What the depot describes, of these kinds; `on_progress` hears which part is read. @throws ImageError"""
        self.fetch(lambda fraction: on_progress(fraction / 2))
        return self.read(kinds, lambda fraction: on_progress((1 + fraction) / 2))

    def _units(self, file, kinds):
        """What a metadata file describes, each unit with the part of the file that is read by then."""
        depots = (self,)
        for position, member, _ in file.archive.members():
            folder, _, name = member.partition("/")
            if folder not in KINDS or "/" in name or name and not name.endswith(".json"):
                raise ValueError(f"{member!r:.200} has no place in metadata")
            if name and folder in kinds:
                stored = StoredDocument(file, position)
                unit = KINDS[folder](stored.first_read())
                unit.keep_in(stored)
                unit.depots = depots
                yield unit, file.archive.part_before(position)


class StoredFile:
    """A metadata file that was brought, and its URL."""

    def __init__(self, url, archive):
        self.url, self.archive = url, archive


class StoredDocument:
    """A document in a metadata file, which is read again whenever it is needed."""

    __slots__ = ("_file", "_position", "digest")

    def __init__(self, file, position):
        self._file, self._position, self.digest = file, position, None

    def first_read(self):
        """The document, and remembers its digest. Raises one of ARCHIVE_ERRORS for one that is broken."""
        content = self._file.archive.read(self._position)
        if content.count(b",") > MOST_VALUES:
            raise ValueError("too many values in one document")
        self.digest = hashlib.sha256(content).digest()
        return shallow(parse(content))

    def document(self):
        """The document as it was. @throws ImageError"""
        try:
            content = self._file.archive.read(self._position)
            if hashlib.sha256(content).digest() != self.digest:
                raise ValueError("it was changed while it was read")
            return parse(content)
        except (*ARCHIVE_ERRORS, OSError) as error:
            raise ImageError("MetadataFormatError", self._file.url, detail=error) from error


@contextlib.contextmanager
def _without_collector():
    """Looking for circles among all that is being read would take longer than reading it, and there are none."""
    was_on = gc.isenabled()
    gc.disable()
    try:
        yield
    finally:
        if was_on:
            gc.enable()


def _not_connected(error):
    return ImageError("DepotConnectError", detail=error, notes=why_not_read(error))
