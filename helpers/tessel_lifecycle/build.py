"""What a bank is built of: what it shares with the running one, what is copied from there, and what is unpacked."""

import contextlib
import copy
import os

from tessel_lifecycle import installed_file, package_store, space
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.image import InstalledPax


class Part:
    """A package that is unpacked: `pax` as it will be in the database, and the depots' `offered`, if they have one,
    which `admit` makes such a `pax` of."""

    def __init__(self, pax, offered, admit):
        self.pax, self._offered, self._admit = pax, offered, admit

    def use_offered(self, error):
        """Takes the depot's package from here on; without one raises `error`."""
        if self._offered is None:
            raise error
        self.pax = self._admit(self._offered)

    @property
    def descriptor(self):
        return self.pax.descriptor

    @property
    def file(self):
        return self.pax.file


class Build:
    """How the plan's content comes about on this host.

    `reused` are InstalledPaxs whose files are all in the running bank, `unpacked` are Parts, `missing` the PAXs among
    these that have to be brought. For a trial no content is read, and it is enough to know about how much it takes.
    @throws ImageError when neither host nor depots have what was changed
    """

    def __init__(self, image, plan, is_trial=False):
        self._image, self.plan, self._is_trial = image, plan, is_trial
        self.reused, self.unpacked, self._copied = [], [], []
        for descriptor in plan.content.descriptors.values():
            present = plan.installed.paxs.get(descriptor.name)
            if not (present and present.descriptor.identity == descriptor.identity):
                present = None
            touched = None
            if present and not (is_trial and descriptor.name in plan.damaged):
                touched = _touched(plan.installed.root, present, is_trial)
            if touched is None:
                with contextlib.suppress(*[ImageError] if is_trial else ()):
                    self.unpacked.append(self._part(descriptor, present))
            else:
                self.reused.append(present)
                self._copied += touched

    def _part(self, descriptor, present):
        """What is unpacked for a package; `present` is the installed one of the same content."""
        offered = self.plan.offered.get(descriptor.key)
        if offered and offered.descriptor.identity != descriptor.identity:
            offered = None
        if present and present.file and package_store.find(self._image, present.file):
            again = copy.copy(present)
            again.installed_at = None
            return Part(again, offered, self._admit)
        if offered is None:
            raise ImageError("InstallationError",
                             detail=f"files of {descriptor.label} have changed, and no depot has it")
        return Part(self._admit(offered), offered, self._admit)

    def _admit(self, offered):
        """A depot's package as it will be in the database. @throws ImageError when the host does not take it"""
        admitted = InstalledPax(offered.descriptor, None, offered.depot.location, offered, signature=offered.signature)
        if not self._is_trial:
            admission = self.plan.admission_of(offered)
            admitted.level, admitted.signed_by = admission.level(offered), admission.signed_by(offered)
        return admitted

    def give_up(self, present):
        """Unpacks a package whose files were to be reused."""
        self.reused.remove(present)
        self.unpacked.append(self._part(present.descriptor, present))

    def paxs(self):
        """The packages as they will be in the database, in the order in which they depend on each other."""
        built = {pax.descriptor.name: pax for pax in (*self.reused, *(part.pax for part in self.unpacked))}
        return [built[descriptor.name] for descriptor in self.plan.content.install_order()]

    @property
    def missing(self):
        return [part.pax.file for part in self.unpacked if not package_store.find(self._image, part.file)]

    @property
    def wanted(self):
        """The digests of the packages that are unpacked."""
        return [part.file.sha256 for part in self.unpacked]

    @property
    def size(self):
        """The bytes of all files that are unpacked."""
        return sum(part.descriptor.installed_size for part in self.unpacked)

    def need(self):
        """What it takes on the file system."""
        written = [file for part in self.unpacked for file in part.descriptor.files if file.type == "file"]
        return space.Need(space.of_downloads(self._image, self.missing),
                          space.of_bank(self.plan.content.descriptors.values(), written + self._copied))


def _touched(root, pax, are_sound=False):
    """The files of an installed package that have the right content, but cannot be shared; None when one is changed.

    Of such files content is read, unless they `are_sound`.
    """
    touched, time = [], installed_file.installation_time(pax.installed_at)
    for file in pax.descriptor.files:
        path = os.path.join(root, file.path)
        if file.type == "file" and not installed_file.is_untouched(path, file, time):
            try:
                if not are_sound and not installed_file.has_content(path, file):
                    return None
            except OSError:
                return None
            touched.append(file)
    return touched
