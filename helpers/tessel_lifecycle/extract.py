"""Rebuilding a depot from the running image."""

import contextlib
import errno
import os
import shutil

from tessel_lifecycle import paths, pax
from tessel_lifecycle.depot_writer import DepotWriter
from tessel_lifecycle.document import compact
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.image import Image, sync_file_system
from tessel_lifecycle.plain_json import structure
from tessel_lifecycle.staging import Meter


def extract_depot(task, options):
    """The task: a depot with everything that the running image holds. Its result tells where the depot is."""
    image = Image(paths.IMAGE)
    target = os.path.join(paths.EXTRACTED_DEPOTS, task.id)
    with image.locked(shared=True):
        installed = image.read()
        if installed.content.base_image is None:
            raise ImageError("StatelessError", detail="no image is installed")
        _make_folder(target + ".part")
        try:
            _write(task, installed, target + ".part")
            sync_file_system(target + ".part")
            os.rename(target + ".part", target)
        except OSError as error:
            raise ImageError("DataStorageNotFound", detail=error) from error
        finally:
            shutil.rmtree(target + ".part", ignore_errors=True)
    size = sum(entry.stat().st_size for entry in os.scandir(os.path.join(target, "paxs")))
    return structure("ryx.software.installed_image.depot_extract_info", location=f"file://{target}",
                     paxs=len(installed.paxs), size=size)


def _make_folder(path):
    """Makes the folder, and removes what killed extractions left."""
    try:
        os.makedirs(paths.EXTRACTED_DEPOTS, exist_ok=True)
        for name in os.listdir(paths.EXTRACTED_DEPOTS):
            if name.endswith(".part"):
                shutil.rmtree(os.path.join(paths.EXTRACTED_DEPOTS, name))
        os.mkdir(path)
    except OSError as error:
        raise ImageError("DataStorageNotFound", detail=error) from error


def _write(task, installed, folder):
    writer = DepotWriter(folder, installed.content.base_image.vendor)
    for unit in installed.catalogue().units():
        if unit.folder != "paxs":
            writer.add(unit)
    meter = Meter(task.progress, 5, 95, len(installed.paxs))
    for installed_pax in installed.paxs.values():
        descriptor = installed_pax.descriptor
        with _recreation_errors(descriptor):
            writer.add_pax(descriptor.document, installed.root, descriptor.files, _signature_of(installed_pax))
        meter.add(1)
    writer.finish()


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
