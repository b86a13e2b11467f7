"""The host's image: reading it in full, locking it, and putting another in its place."""

import contextlib
import ctypes
import fcntl
import os
import shutil

from tessel_lifecycle import files, overridden
from tessel_lifecycle.banks import BANKS, Banks
from tessel_lifecycle.catalogue import Catalogue
from tessel_lifecycle.content import Choice, Content
from tessel_lifecycle.descriptor import Descriptor
from tessel_lifecycle.document import Fields, compact, flag, list_of, name, sha256, size, text
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.metadata import (MOST_SIGNATURE, AddOn, BaseImage, Component, Manifest, Solution,
                                       acceptance_level, date_time)
from tessel_lifecycle.version import Version

SOURCES = ("BASE_IMAGE", "ADD_ON", "HARDWARE_SUPPORT", "SOLUTION", "COMPONENT")


class InstalledPax:
    """A PAX of the running image: its descriptor, when it came and from which depot.

    `file` has `size` and `sha256` of the file that it came in; None where that was not recorded.
    `level` is the acceptance level that it was installed with, `signed_by` the subject of the certificate that vouched
    for it then, and `signature` the detached one over its descriptor; None where there is none.
    """

    folder = "paxs"

    def __init__(self, descriptor, installed_at, depot, file=None, level=None, signed_by=None, signature=None):
        self.descriptor, self.installed_at, self.depot, self.file = descriptor, installed_at, depot, file
        self.level, self.signed_by, self.signature = level or descriptor.acceptance_level, signed_by, signature

    @property
    def key(self):
        return self.descriptor.key

    @property
    def label(self):
        return self.descriptor.label

    @property
    def identity(self):
        return self.descriptor.identity


class PaxFile:
    """Size and digest of a whole PAX."""

    def __init__(self, document):
        fields = Fields(document, "file")
        self.size, self.sha256 = fields.take("size", size), fields.take("sha256", sha256)


class InstalledImage:
    """The content of a bank with its dates. `content.base_image` is None when nothing is installed."""

    def __init__(self, bank=None, root=None):
        self.content, self.bank, self.root = Content(), bank, root
        self.component_dates, self.paxs = {}, {}   # name -> date-time, name -> InstalledPax

    def catalogue(self):
        """What this image can describe, as a depot would."""
        content, catalogue = self.content, Catalogue()
        units = [content.base_image, content.add_on, *content.hardware_support]
        units += [solution for solution, _ in content.solutions.values()]
        units += [choice.component for choice in content.components.values()]
        for unit in units:
            if unit:
                catalogue.add(unit)
        catalogue.paxs = {pax.key: pax for pax in self.paxs.values()}
        return catalogue

    def described(self):
        """What it can describe, and what was overridden in it."""
        catalogue = self.catalogue()
        catalogue.add_missing(self.content.overridden)
        return catalogue


class Image(Banks):
    """The image of a host. Reading needs no lock; changing is done under `locked`."""

    def read(self, bank=None):
        """What a bank holds in full, without a name the running one. @throws ImageError"""
        bank = bank or self.current()
        if bank is None:
            return InstalledImage()
        installed = InstalledImage(bank, self.path(bank, "root"))
        try:
            self._read(bank, installed)
        except (ValueError, KeyError) as error:
            raise ImageError("DatabaseFormatError", detail=error) from error
        return installed

    def _read(self, bank, installed):
        fields, content = Fields(self.document(bank, "image.json"), "image.json"), installed.content
        content.specification = fields.take("specification", lambda value: Fields(value).value, None)
        content.base_image = fields.take("base_image", BaseImage)
        content.add_on = fields.take("add_on", AddOn, None)
        content.hardware_support = fields.take("hardware_support", list_of(Manifest))
        for entry in fields.take("solutions", list_of(Fields)):
            solution = entry.take("document", Solution)
            content.solutions[solution.name] = solution, entry.take("components", list_of(name))
        for entry in fields.take("components", list_of(Fields)):
            component = entry.take("document", Component)
            source = SOURCES[SOURCES.index(entry.take("source", text))]
            content.components[component.name] = Choice(component, source, entry.take("pulled_in", flag, False))
            installed.component_dates[component.name] = entry.take("installed_at", date_time)
        for entry in fields.take("paxs", list_of(Fields)):
            key = entry.take("name", name), entry.take("version", Version)
            descriptor = Descriptor(self.document(bank, "descriptors", key[0] + ".json"))
            if descriptor.key != key:
                raise ValueError(f"the descriptor of {key[0]} is that of {descriptor.label}")
            descriptor.pack()
            content.descriptors[descriptor.name] = descriptor
            installed.paxs[descriptor.name] = InstalledPax(
                descriptor, entry.take("installed_at", date_time), entry.take("depot", text, ""),
                entry.take("file", PaxFile, None), entry.take("acceptance_level", acceptance_level, None),
                entry.take("signed_by", text, None), self._signature(bank, key[0]))
        if os.path.exists(self.path(bank, overridden.FILE)):
            content.overridden = overridden.from_document(self.document(bank, overridden.FILE))

    def _signature(self, bank, name):
        try:
            return files.read_bounded(self.path(bank, "descriptors", name + ".cms"), MOST_SIGNATURE)
        except FileNotFoundError:
            return None
        except OSError as error:
            raise ImageError("DatabaseIOError", detail=error) from error

    @contextlib.contextmanager
    def locked(self, shared=False):
        """Keeps other helpers from changing the image; never waits. @throws ImageError"""
        try:
            os.makedirs(self.directory, exist_ok=True)
            lock = open(self.path("lock"), "a")
        except OSError as error:
            raise ImageError("DatabaseIOError", detail=error) from error
        with lock:
            try:
                fcntl.flock(lock, fcntl.LOCK_NB | (fcntl.LOCK_SH if shared else fcntl.LOCK_EX))
            except BlockingIOError:
                raise ImageError("LockingError") from None
            yield

    def new_bank(self):
        """Empties the bank that does not run and returns its name."""
        bank = "b" if self.current() == "a" else "a"
        self.discard(bank)
        try:
            os.makedirs(self.path(bank, "descriptors"))
            self.disown(bank)
            files.make_directories(self.path(bank, "root"))
        except BaseException:
            self.discard(bank)
            raise
        return bank

    def discard(self, bank):
        """Removes a bank that does not run; one whose removal is broken off is no bank to go back to.

        @throws ImageError when a file of it cannot be removed, OSError
        """
        if os.path.lexists(self.path(bank)):
            if os.path.islink(self.path(bank)) or not os.path.isdir(self.path(bank)):
                os.unlink(self.path(bank))  # what a link leads to is not touched: it may be the bank that runs
                return
            files.remove(self.path(bank, "image.json"))

            def refuse(_, path, failure):
                holder = self._holder(os.path.relpath(path, self.path(bank, "root")))
                raise ImageError("ComponentUnmountError", holder, detail=failure[1]) from failure[1]

            shutil.rmtree(self.path(bank), onerror=refuse)

    def _holder(self, path):
        """Whose file this is: the component's label in the running image, which mostly has it, too; or the path."""
        with contextlib.suppress(ImageError):
            content = self.read().content
            for choice in content.components.values():
                for reference in choice.component.paxs:
                    descriptor = content.descriptors.get(reference.name)
                    if descriptor and any(file.path == path for file in descriptor.files):
                        return choice.component.label
        return path

    def discard_unfinished(self):
        """Removes what a killed apply left of a new bank."""
        unfinished = [bank for bank in BANKS if os.path.isdir(self.path(bank)) and not self.is_fit(bank)]
        if unfinished:
            with contextlib.suppress(ImageError, OSError), self.locked():
                for bank in unfinished:
                    if bank != self.current():
                        self.discard(bank)

    def write_database(self, bank, content, dates, paxs, now):
        """Writes a bank's descriptors and database; a component or PAX without a date is dated `now`."""
        for descriptor in content.descriptors.values():
            with open(self.path(bank, "descriptors", descriptor.name + ".json"), "x") as file:
                file.write(compact(descriptor.document))
        for pax in paxs:
            if pax.signature and pax.descriptor.document == content.descriptors[pax.descriptor.name].document:
                with open(self.path(bank, "descriptors", pax.descriptor.name + ".cms"), "xb") as file:
                    file.write(pax.signature)
        overridden_units = overridden.to_document(content.overridden)
        if overridden_units["components"]:
            files.replace(self.path(bank, overridden.FILE), compact(overridden_units).encode())
        database = _database(content, dates, paxs, now)
        files.replace(self.path(bank, "image.json"), compact(database).encode())

    def switch(self, bank):
        """Makes a complete bank the running one, for good: a crash leaves the old one or this one."""
        sync_file_system(self.directory)
        new = self.path("current.new")
        files.remove(new)
        os.symlink(bank, new)
        os.rename(new, self.path("current"))
        files.sync_directory(self.directory)


def _database(content, dates, paxs, now):
    origin = {"specification": content.specification} if content.specification else {}
    return origin | {
        "format": 1, "installed_at": now,
        "base_image": content.base_image.document,
        "add_on": content.add_on and content.add_on.document,
        "hardware_support": [manifest.document for manifest in content.hardware_support],
        "solutions": [{"document": solution.document, "components": components}
                      for solution, components in content.solutions.values()],
        "components": [{"document": choice.component.document, "source": choice.source,
                        "pulled_in": choice.pulled_in, "installed_at": dates.get(name, now)}
                       for name, choice in content.components.items()],
        "paxs": [_pax_entry(pax, now) for pax in paxs]}


def _pax_entry(pax, now):
    descriptor = pax.descriptor
    entry = {"name": descriptor.name, "version": descriptor.version.text, "vendor": descriptor.vendor,
             "summary": descriptor.summary, "acceptance_level": pax.level,
             "payload_size": descriptor.payload_size, "installed_size": descriptor.installed_size,
             "sha256": descriptor.payload_sha256, "installed_at": pax.installed_at or now, "depot": pax.depot}
    if pax.signed_by:
        entry["signed_by"] = pax.signed_by
    return entry | ({"file": {"size": pax.file.size, "sha256": pax.file.sha256}} if pax.file else {})


def sync_file_system(path):
    """Writes everything of the file system that holds `path` to its disk."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        if ctypes.CDLL(None, use_errno=True).syncfs(descriptor) != 0:
            raise OSError(ctypes.get_errno(), "syncfs", path)
    finally:
        os.close(descriptor)
