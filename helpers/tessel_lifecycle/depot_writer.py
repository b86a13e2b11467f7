"""Writing a depot."""

import base64
import os
import zipfile

from tessel_lifecycle import files, pax
from tessel_lifecycle.archive import add_member
from tessel_lifecycle.document import compact
from tessel_lifecycle.metadata import Pax

METADATA = "metadata.zip"


class DepotWriter:
    """Fills an empty folder with a depot; the index comes last, so that an unfinished one is none.

    The same content gives the same bytes, whenever and wherever it is written.
    """

    def __init__(self, folder, vendor):
        self._folder, self._vendor, self._members = folder, vendor, {}
        os.makedirs(os.path.join(folder, "paxs"), exist_ok=True)

    def add(self, unit):
        """Takes a described unit."""
        name = getattr(unit, "name", "base") + "_" + unit.version.text  # a version has no '_', but may follow a '-'
        self._members[f"{unit.folder}/{name}.json"] = unit.document

    def add_pax(self, document, root, listed, sign=lambda content: None):
        """Makes a PAX of the listed files below `root`; `sign` as in pax.create. @throws pax.ChangedFile, OSError"""
        name = f"{document['name']}-{document['version']}"
        path = os.path.join(self._folder, "paxs", name + ".pax")
        descriptor, signature = pax.create(path, document, root, listed, sign)
        unit = {"name": document["name"], "version": document["version"], "size": os.path.getsize(path),
                "sha256": files.sha256(path), "descriptor": descriptor}
        if signature:
            unit["signature"] = base64.b64encode(signature).decode()
        self.add(Pax(unit))

    def finish(self):
        """Writes metadata and index."""
        path = os.path.join(self._folder, METADATA)
        with zipfile.ZipFile(path, "w") as archive:
            for name, document in sorted(self._members.items()):
                add_member(archive, name, content=compact(document).encode())
        index = {"format": 1, "vendor": self._vendor, "metadata": [
            {"file": METADATA, "sha256": files.sha256(path), "size": os.path.getsize(path)}]}
        files.replace(os.path.join(self._folder, "index.json"), compact(index).encode())
