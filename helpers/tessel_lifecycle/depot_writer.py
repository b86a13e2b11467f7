"""Writing a depot."""

import base64
import os
import shutil
import zipfile

from tessel_lifecycle import depot_index, files, pax
from tessel_lifecycle.archive import add_member
from tessel_lifecycle.descriptor import Pax
from tessel_lifecycle.document import compact

METADATA = "metadata.zip"


class DepotWriter:
    """Fills an empty folder with a depot; the index comes last, so that an unfinished one is none.

    The same content gives the same bytes, whenever and wherever it is written. Several threads may add packages.
    """

    def __init__(self, folder, vendor):
        self._folder, self._vendor, self._members = folder, vendor, {}
        os.makedirs(os.path.join(folder, "paxs"), exist_ok=True)

    def add(self, unit):
        """Takes a described unit."""
        self._add_document(unit.folder, getattr(unit, "name", "base"), unit.version.text, unit.document)

    def _add_document(self, folder, name, version, document):
        self._members[f"{folder}/{name}_{version}.json"] = document  # a version has no '_', but may follow a '-'

    def add_pax(self, document, root, listed, sign=lambda content: None, on_bytes=lambda count: None):
        """Makes a PAX of the listed files below `root`; other arguments as for pax.create, whose errors it raises."""
        path = self._path(document)
        descriptor, signature = pax.create(path, document, root, listed, sign, on_bytes)
        unit = _unit(descriptor, os.path.getsize(path), files.sha256(path), signature)
        self.add(Pax(unit))  # which checks it

    def add_kept_pax(self, document, file, signature, source):
        """Takes a PAX as it is: that at `source`, of which `file` has size and digest and `document`, which was checked
        when it was read, describes it.

        It gets a second name rather than a copy, where that can be had: whoever uses a PAX verifies it. Returns False,
        having taken nothing, when it is not what it should be. @throws OSError
        """
        if files.sha256(source) != file.sha256:
            return False
        path = self._path(document)
        try:
            os.link(source, path)
        except OSError:
            shutil.copyfile(source, path)
        self._add_document(Pax.folder, document["name"], document["version"],
                           _unit(document, file.size, file.sha256, signature))
        return True

    def _path(self, document):
        return os.path.join(self._folder, "paxs", f"{document['name']}-{document['version']}.pax")

    def finish(self, sign=None, valid_for=None):
        """Writes metadata and index; the latter signed, for so many days, if `sign` makes signatures."""
        path = os.path.join(self._folder, METADATA)
        with zipfile.ZipFile(path, "w") as archive:
            for name, document in sorted(self._members.items()):
                add_member(archive, name, content=compact(document).encode())
        index = {"format": 1, "vendor": self._vendor, "metadata": [
            {"file": METADATA, "sha256": files.sha256(path), "size": os.path.getsize(path)}]}
        depot_index.write(self._folder, index, sign, valid_for)


def _unit(descriptor, size, sha256, signature):
    """What a depot's metadata tells of a PAX."""
    unit = {"name": descriptor["name"], "version": descriptor["version"], "size": size, "sha256": sha256,
            "descriptor": descriptor}
    if signature:
        unit["signature"] = base64.b64encode(signature).decode()
    return unit
