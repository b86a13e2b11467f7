"""What tasks left behind that were killed together with their guards, or for which nobody came back."""

import contextlib
import os
import shutil
import time

from tessel_lifecycle import files, paths
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.image import Image
from tessel_lifecycle.lock import LockTimeout, access_lock
from tessel_lifecycle.metadata_cache import MetadataCache
from tessel_lifecycle.task import is_task_id

_DOCUMENTS = (paths.DEPOTS_DOCUMENT, paths.CONFIGURATION_DOCUMENT, paths.IMAGE_DOCUMENT)


UNFINISHED = ".part"  # ends the name of an extract that is being written
EXTRACT_AGE = 86400   # seconds that a depot is there which was extracted from the image


def remove(age, staged):
    """Removes applies' documents and extracted depots, and if `staged` also packages in the stage, that are older than
    `age` seconds. What a failed apply has staged is wanted again: that is no time to remove packages. Of depots'
    metadata goes what nobody has used for long."""
    before = time.time() - age
    _remove_old(paths.LIFECYCLE, before, lambda path: any(
        path.startswith(document) and is_task_id(path.removeprefix(document)) for document in _DOCUMENTS))
    remove_extracts(age)
    MetadataCache(paths.METADATA).tidy()
    if staged:
        image = Image(paths.IMAGE)
        with contextlib.suppress(ImageError), image.locked():
            _remove_old(image.stage, before, lambda path: True)


def remove_extracts(age=EXTRACT_AGE):
    """Removes extracted depots that are older than `age` seconds, and unfinished ones at which nobody works."""
    before = time.time() - age
    with contextlib.suppress(OSError), os.scandir(paths.EXTRACTED_DEPOTS) as entries:
        for entry in entries:
            task_id = entry.name.removesuffix(UNFINISHED)
            is_over = entry.stat(follow_symlinks=False).st_mtime <= before if task_id == entry.name else (
                not _is_worked_at(task_id))
            if is_task_id(task_id) and is_over:
                files.remove(os.path.join(entry.path, "index.json"))  # half a depot is none
                shutil.rmtree(entry.path, ignore_errors=True)


def _is_worked_at(task_id):
    try:
        with access_lock(paths.TASK_HELPER + task_id, 0):
            return False
    except (LockTimeout, OSError):
        return True


def _remove_old(folder, before, is_ours):
    with contextlib.suppress(OSError), os.scandir(folder) as entries:
        for entry in entries:
            if is_ours(entry.path) and entry.stat(follow_symlinks=False).st_mtime <= before:
                files.remove(entry.path)
