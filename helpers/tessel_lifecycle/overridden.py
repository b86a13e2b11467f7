"""What an image would hold if nothing had taken its place: components of the base image, the add-on and hardware
support that others raised or replaced, with their packages.

A bank has them in overridden.json, beside its database: {"components": [documents], "paxs": [{"document": as in a
depot, "depot": location}]}. With them a solution can be removed without a depot, as far as the packages are kept; else
these are brought from where they once came from.
"""

import base64
import functools

from tessel_lifecycle.catalogue import Catalogue
from tessel_lifecycle.depot_notes import why_not_read
from tessel_lifecycle.descriptor import Pax
from tessel_lifecycle.document import Fields, list_of, text
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import TASK, FetchError
from tessel_lifecycle.location import open_source
from tessel_lifecycle.metadata import Component

FILE = "overridden.json"


class RememberedDepot:
    """Where a package came from once; looked at only when it is needed again."""

    def __init__(self, location):
        self.location = location

    @functools.cached_property
    def source(self):
        try:
            return open_source(self.location, TASK)
        except FetchError as error:
            raise ImageError("PaxDownloadError", error.url, detail=error, notes=why_not_read(error)) from error


def collect(content, catalogue):
    """The Catalogue of what is overridden in a content that was resolved with a catalogue, as far as that tells."""
    found, present = Catalogue(), content.versions()
    for unit in (content.base_image, content.add_on, *content.hardware_support):
        for key in unit.components.items() if unit else ():
            component = catalogue.components.get(key)
            if component and present.get(key[0]) != key[1]:
                found.components[key] = component
    references = [reference for component in found.components.values() for reference in component.paxs]
    found.paxs = {r.key: catalogue.paxs[r.key] for r in references if r.key in catalogue.paxs}
    return found


def offer_kept(catalogue, paxs):
    """Adds to the PAXs that can be had, key -> Pax, those of a catalogue that came from somewhere once."""
    for key, pax in catalogue.paxs.items():
        if key not in paxs and (known := pax if isinstance(pax, Pax) else offered(pax)):
            paxs[key] = known


def offered(pax):
    """An InstalledPax as a depot would offer it, or None where it was not recorded which file it came in."""
    if pax.file is None:
        return None
    return _offered({"name": pax.descriptor.name, "version": pax.descriptor.version.text, "size": pax.file.size,
                     "sha256": pax.file.sha256, "descriptor": pax.descriptor.document,
                     "signature": pax.signature and base64.b64encode(pax.signature).decode()}, pax.depot)


def _offered(document, location):
    pax = Pax(document)
    pax.depots = (RememberedDepot(location),)
    return pax


def to_document(catalogue):
    """What is written of a Catalogue that `collect` made."""
    paxs = []
    for pax in catalogue.paxs.values():
        if not isinstance(pax, Pax):
            pax = offered(pax)
        if pax:
            paxs.append({"document": pax.document, "depot": pax.depot.location})
    return {"components": [component.document for component in catalogue.components.values()], "paxs": paxs}


def from_document(document):
    """The Catalogue that was written; raises ValueError for what was not."""
    fields, found = Fields(document, FILE), Catalogue()
    for component in fields.take("components", list_of(Component)):
        found.add(component)
    for entry in fields.take("paxs", list_of(Fields)):
        found.add(_offered(entry.take("document", lambda value: value), entry.take("depot", text)))
    return found
