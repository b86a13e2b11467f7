"""Finding what was changed or lost of an image since it was installed.

Files that no package lists are nobody's: they are not looked at, and not carried over to the next image.
"""

import os

from tessel_lifecycle.errors import Note
from tessel_lifecycle.installed_file import installation_time, is_as_installed

MOST_TOLD = 20

_NEVER = -1  # no file's time, so that all content is read


class Damage:
    """A file of an installed PAX that is not as its descriptor lists it; `lost` tells that nothing is in its place."""

    def __init__(self, descriptor, file, lost):
        self.descriptor, self.file, self.lost = descriptor, file, lost

    def note(self):
        return Note("FileLost" if self.lost else "FileChanged", self.file.path, self.descriptor.label)


def find_damage(installed, thorough=False, on_bytes=lambda count: None):
    """Compares the files of an InstalledImage with its packages' lists: a list of Damage.

    Content is read where a file's time tells that somebody has written to it; of all files when `thorough`.
    """
    found = []
    for pax in installed.paxs.values():
        time = _NEVER if thorough else installation_time(pax.installed_at)
        for file in pax.descriptor.files:
            path = os.path.join(installed.root, file.path)
            if not is_as_installed(path, file, time):
                found.append(Damage(pax.descriptor, file, not os.path.lexists(path)))
            on_bytes(file.size if file.type == "file" else 0)
    return _without_shared_directories(installed, found)


def _without_shared_directories(installed, found):
    """Leaves out directories that are as another package lists them: it has the mode that was set last."""
    shared = {damage.file.path for damage in found if damage.file.type == "directory" and not damage.lost}
    fine = {file.path for pax in installed.paxs.values() if shared for file in pax.descriptor.files
            if file.path in shared and is_as_installed(os.path.join(installed.root, file.path), file, _NEVER)}
    return [damage for damage in found if damage.file.path not in fine]


def names(found):
    """The names of the packages that have damage."""
    return {damage.descriptor.name for damage in found}


def notes(found, most=MOST_TOLD):
    """What a client is told of damage: at most so many files, and how many more there are."""
    told = [damage.note() for damage in found[:most]]
    return told + [Note("FilesMore", len(found) - most)] if len(found) > most else told
