"""Bringing a resolved content onto the host: building the other bank of it, switching."""

import contextlib
import os

from tessel_lifecycle import files, pax
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.host import check_admitted
from tessel_lifecycle.image import InstalledPax
from tessel_lifecycle.staging import Meter, check_space, installation_errors, stage, staged
from tessel_lifecycle.task import utc_now


class Plan:
    """What it takes to get from the installed image to a content. `offered` maps keys to the PAXs of the depots.

    `new` are the PAXs that the host does not have.
    """

    def __init__(self, content, installed, offered):
        self.content, self.installed, self.offered = content, installed, offered
        have = {p.key for p in installed.paxs.values()}
        self.new = [offered[d.key] for d in content.descriptors.values() if d.key not in have]

    @property
    def download_size(self):
        return sum(p.size for p in self.new)

    @property
    def is_done(self):
        """Whether the installed image is the content already."""
        return _outline(self.content) == _outline(self.installed.content)

    def check(self, downgrades=False):
        """Raises ImageError when this host cannot take the content; `downgrades` allows lower versions."""
        present = self.installed.content.versions()
        lower = [f"{name}({present[name]} to {version})" for name, version in self.content.versions().items()
                 if name in present and version < present[name]]
        if lower and not downgrades:
            raise ImageError("ComponentDowngradeError", ", ".join(lower))
        check_admitted([p.descriptor for p in self.new])


def _outline(content):
    return (content.base_image and content.base_image.key, content.add_on and content.add_on.key,
            sorted(manifest.key for manifest in content.hardware_support),
            sorted((name, solution.version, sorted(parts)) for name, (solution, parts) in content.solutions.items()),
            sorted((name, choice.version, choice.source) for name, choice in content.components.items()),
            sorted(descriptor.key for descriptor in content.descriptors.values()))


def apply(image, plan, task):
    """Makes the plan's content the running image and empties the stage. Progress goes on from 60. @throws ImageError"""
    with installation_errors():
        check_space(image.directory, sum(d.installed_size for d in plan.content.descriptors.values()))
        bank = image.new_bank()
        try:
            _fill(image, bank, plan, task)
            task.progress(96)
            task.commit()
            image.switch(bank)
        except BaseException:
            with contextlib.suppress(OSError, ImageError):
                if image.current() != bank:
                    image.discard(bank)
            raise
        for name in os.listdir(image.stage):
            files.remove(os.path.join(image.stage, name))


def _fill(image, bank, plan, task):
    now, order = utc_now(), plan.content.install_order()
    meter = Meter(task.progress, 60, 95, sum(d.installed_size for d in order))
    paxs = [_put(image, bank, plan, descriptor, meter) for descriptor in order]
    dates = {name: date for name, date in plan.installed.component_dates.items()
             if plan.installed.content.versions()[name] == plan.content.versions().get(name)}
    try:
        image.write_database(bank, plan.content, dates, paxs, now)
    except OSError as error:
        raise ImageError("DatabaseIOError", detail=error) from error


def _put(image, bank, plan, descriptor, meter):
    """Puts one PAX into a bank: from the running bank while its files there are as installed, else from the depot."""
    root, present = image.path(bank, "root"), plan.installed.paxs.get(descriptor.name)
    if present and present.key == descriptor.key:
        if pax.copy_installed(plan.installed.root, root, descriptor, meter.add):
            return present
        pax.discard(root, descriptor)
    offered = plan.offered.get(descriptor.key)
    if offered is None:
        raise ImageError("InstallationError", detail=f"files of {descriptor.label} have changed, and no depot has it")
    stage(image, [offered])
    pax.unpack(staged(image, offered), offered.descriptor, root, meter.add)
    plan.content.descriptors[descriptor.name] = offered.descriptor
    return InstalledPax(offered.descriptor, None, offered.depot.location)
