"""What applies left behind that were killed together with their guards, or for which nobody came back."""

import contextlib
import os
import time

from tessel_lifecycle import files, paths
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.image import Image
from tessel_lifecycle.task import is_task_id

_DOCUMENTS = (paths.DEPOTS_DOCUMENT, paths.CONFIGURATION_DOCUMENT, paths.IMAGE_DOCUMENT)


def remove(age, staged):
    """Removes applies' documents, and if `staged` also packages in the stage, that are older than `age` seconds."""
    before = time.time() - age
    _remove_old(paths.LIFECYCLE, before, lambda path: any(
        path.startswith(document) and is_task_id(path.removeprefix(document)) for document in _DOCUMENTS))
    if staged:
        image = Image(paths.IMAGE)
        with contextlib.suppress(ImageError), image.locked():
            _remove_old(image.stage, before, lambda path: True)


def _remove_old(folder, before, is_ours):
    with contextlib.suppress(OSError), os.scandir(folder) as entries:
        for entry in entries:
            if is_ours(entry.path) and entry.stat(follow_symlinks=False).st_mtime <= before:
                files.remove(entry.path)
