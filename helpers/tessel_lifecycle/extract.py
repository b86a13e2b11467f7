"""Making a depot of the running image again."""

import contextlib
import errno
import os
import shutil

from tessel_lifecycle import leftovers, package_store, parallel, paths, pax
from tessel_lifecycle.depot_writer import DepotWriter
from tessel_lifecycle.document import compact
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.image import Image, sync_file_system
from tessel_lifecycle.plain_json import structure
from tessel_lifecycle.progress import Progress

_MOST_PACKERS = 3  # that work at once: each takes less than 40 MiB


def extract_depot(task, options):
    """The task: a depot with everything that the running image holds. Its result tells where the depot is."""
    image = Image(paths.IMAGE)
    target = os.path.join(paths.EXTRACTED_DEPOTS, task.id)
    part = target + leftovers.UNFINISHED
    with image.locked(shared=True):
        installed = image.read()
        if installed.content.base_image is None:
            raise ImageError("StatelessError", detail="no image is installed")
        _make_folder(part)
        try:
            _write(task, image, installed, part)
            sync_file_system(part)
            os.rename(part, target)
        except OSError as error:
            raise ImageError("DataStorageNotFound", detail=error) from error
        finally:
            shutil.rmtree(part, ignore_errors=True)
    size = sum(entry.stat().st_size for entry in os.scandir(os.path.join(target, "paxs")))
    return structure("ryx.software.installed_image.depot_extract_info", location=f"file://{target}",
                     paxs=len(installed.paxs), size=size)


def _make_folder(path):
    try:
        os.makedirs(path)
    except OSError as error:
        raise ImageError("DataStorageNotFound", detail=error) from error


def _write(task, image, installed, folder):
    """Packages that are kept go into the depot as they came; only the others are packed again, on all cores."""
    writer = DepotWriter(folder, installed.content.base_image.vendor)
    for unit in installed.catalogue().units():
        if unit.folder != "paxs":
            writer.add(unit)
    progress = Progress(task.progress, pack=sum(p.descriptor.installed_size for p in installed.paxs.values()))
    progress.enter("pack")

    def add(installed_pax, check):
        def on_bytes(count):
            check()
            progress.add(count)
        with _recreation_errors(installed_pax.descriptor):
            _add(writer, image, installed, installed_pax, on_bytes)

    largest_first = sorted(installed.paxs.values(), key=lambda p: p.descriptor.installed_size, reverse=True)
    parallel.on_all_cores(add, largest_first, progress.tell, _MOST_PACKERS)
    writer.finish()


def _add(writer, image, installed, installed_pax, on_bytes):
    descriptor, file = installed_pax.descriptor, installed_pax.file
    kept = file and package_store.find(image, file)
    if kept and writer.add_kept_pax(descriptor.document, file, installed_pax.signature, kept):
        on_bytes(descriptor.installed_size)
    else:
        writer.add_pax(descriptor.document, installed.root, descriptor.files, _signature_of(installed_pax), on_bytes)


def _signature_of(installed_pax):
    """Gives a PAX that is made anew the signature that it came with, if its descriptor is the one that was signed."""
    signed = compact(installed_pax.descriptor.document).encode()
    return lambda content: installed_pax.signature if content == signed else None


@contextlib.contextmanager
def _recreation_errors(descriptor):
    try:
        yield
    except pax.ChangedFile as error:
        raise ImageError("PaxChecksumError", descriptor.label, detail=error) from error
    except OSError as error:
        if error.errno in (errno.ENOSPC, errno.EDQUOT, errno.EROFS):
            raise
        raise ImageError("PaxRecreateError", descriptor.label, detail=error) from error
