"""What it takes to bring a host from its image to another content."""

from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.host import check_admitted, check_levels


class Plan:
    """What it takes to get from the installed image to a content. `offered` maps keys to the PAXs of the depots.

    `damaged` names the installed PAXs of which files were changed or lost. `new` are the PAXs that the host does not
    have, or not whole and the depots have. `bank` names the bank that has the content already, which only has to be
    switched to, and `returns` tells that it is what the spare bank holds, whole or not. `warnings` are Notes: of depots
    that were left out and, once it is checked, on the new PAXs. `arriving` are the InstalledPaxs that a switch brings.
    """

    bank, returns, warnings, arriving = None, False, [], ()

    def __init__(self, content, installed, offered, damaged=frozenset()):
        self.content, self.installed, self.offered, self.damaged = content, installed, offered, damaged
        have = {p.descriptor.identity for name, p in installed.paxs.items()
                if name not in damaged or p.key not in offered}
        self.admission = None
        missing = [d for d in content.descriptors.values() if d.identity not in have and d.key not in offered]
        if missing:
            raise ImageError("MissingPaxError", ", ".join(d.label for d in missing))
        self.new = [offered[d.key] for d in content.descriptors.values() if d.identity not in have]

    @classmethod
    def switch(cls, spare, installed, damaged):
        """The plan for getting to what the spare image holds, an InstalledImage that is whole."""
        made = cls(installed.content, installed, {}, damaged)
        made.content, made.bank, made.returns = spare.content, spare.bank, True
        have = {p.descriptor.identity for p in installed.paxs.values()}
        made.arriving = [p for p in spare.paxs.values() if p.descriptor.identity not in have]
        return made

    @property
    def replaced(self):
        """The new PAXs under whose name and version other content is installed."""
        have = {p.key: p.descriptor.identity for p in self.installed.paxs.values()}
        return [p for p in self.new if have.get(p.key, p.descriptor.identity) != p.descriptor.identity]

    @property
    def download_size(self):
        return sum(p.size for p in self.new)

    @property
    def is_done(self):
        """Whether the installed image is the content already, whole."""
        return not self.damaged and self.content.outline() == self.installed.content.outline()

    def admission_of(self, pax):
        """The Admission that an offered PAX has: it is asked for now if it has not been. @throws ImageError"""
        if self.admission is None or pax.key not in self.admission:
            return check_admitted([pax])
        return self.admission

    def check(self, downgrades=False):
        """Raises ImageError when this host cannot take the content; `downgrades` allows lower versions, which a return
        may always have. What is said of the new PAXs is `admission` then; a switch brings none."""
        present = self.installed.content.versions()
        lower = [f"{name}({present[name]} to {version})" for name, version in self.content.versions().items()
                 if name in present and version < present[name]]
        if lower and not downgrades and not self.returns:
            raise ImageError("ComponentDowngradeError", ", ".join(lower))
        check_levels(self.arriving)
        self.admission = check_admitted(self.new)
        self.warnings = [*self.warnings, *self.admission.warnings]
