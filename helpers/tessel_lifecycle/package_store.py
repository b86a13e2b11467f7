"""Packages that are kept as they came: those of the running image and of the spare one.

    image/store/SHA256.pax    named by the digest of the whole file

With them, changed files are mended, solutions removed and depots extracted without asking a depot. A kept package is as
little trusted as one that was just downloaded: it is verified whenever it is used.
"""

import contextlib
import os

from tessel_lifecycle import files, overridden, paths, platform_file
from tessel_lifecycle.banks import BANKS
from tessel_lifecycle.errors import ImageError

_SUFFIX = ".pax"
_LEAST_FREE = 0.05  # of the file system: what is left to others before packages are kept


def find(image, file):
    """Where a PAX lies, of which `file` has `size` and `sha256`: in the stage or kept. None when it is not there."""
    for folder in (image.stage, image.store):
        path = os.path.join(folder, file.sha256 + _SUFFIX)
        with contextlib.suppress(OSError):
            if os.path.getsize(path) == file.size:
                return path
    return None


def are_kept():
    """Whether this host keeps packages, by `keep_packages` of its preferences."""
    try:
        return platform_file.read(paths.PREFERENCES).get("keep_packages", "true").lower() != "false"
    except (OSError, ValueError):
        return True


def _space_lasts(directory):
    status = os.statvfs(directory)
    return status.f_bavail >= _LEAST_FREE * status.f_blocks


def digest(name):
    """The digest in the name of a file in stage or store; that of a download that was not finished as well."""
    return name.removesuffix(".part").removesuffix(_SUFFIX)


def listed(image, *banks):
    """The digests of the packages that these banks hold or would hold, as far as their databases are there and tell."""
    found = set()
    for bank in banks:
        with contextlib.suppress(ImageError, AttributeError, KeyError, TypeError):
            entries = image.document(bank, "image.json")["paxs"]
            found.update(entry["file"]["sha256"] for entry in entries if "file" in entry)
        with contextlib.suppress(ImageError, KeyError, TypeError):
            found.update(entry["document"]["sha256"] for entry in image.document(bank, overridden.FILE)["paxs"])
    return found


def settle(image):
    """After a switch: moves what was staged and is in a bank to the kept packages, and removes the other packages.

    What cannot be done now is done the next time.
    """
    keep = listed(image, *BANKS) if are_kept() and _space_lasts(image.directory) else ()
    with contextlib.suppress(OSError):
        if keep:
            os.makedirs(image.store, exist_ok=True)
        for folder in (image.stage, image.store):
            for name in os.listdir(folder) if os.path.isdir(folder) else ():
                path = os.path.join(folder, name)
                if digest(name) not in keep or not name.endswith(_SUFFIX):
                    files.remove(path)
                elif folder == image.stage:
                    os.rename(path, os.path.join(image.store, name))
