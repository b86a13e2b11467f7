"""Bringing a resolved content onto the host: building the other bank of it, switching."""

import contextlib
import os

from tessel_lifecycle import files, pax
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.image import InstalledPax
from tessel_lifecycle.staging import Meter, check_space, installation_errors, stage, staged
from tessel_lifecycle.task import utc_now


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
        image.write_database(bank, plan.content, dates, paxs, now, plan.specification)
    except OSError as error:
        raise ImageError("DatabaseIOError", detail=error) from error


def _put(image, bank, plan, descriptor, meter):
    """Puts one PAX into a bank: from the running bank while its files there are as installed, else from the depot."""
    root, present = image.path(bank, "root"), plan.installed.paxs.get(descriptor.name)
    if present and present.descriptor.identity == descriptor.identity:
        if pax.copy_installed(plan.installed.root, root, descriptor, meter.add):
            return present
        pax.discard(root, descriptor)
    offered = plan.offered.get(descriptor.key)
    if offered is None:
        raise ImageError("InstallationError", detail=f"files of {descriptor.label} have changed, and no depot has it")
    stage(image, [offered])
    pax.unpack(staged(image, offered), offered.descriptor, root, meter.add)
    plan.content.descriptors[descriptor.name] = offered.descriptor
    return InstalledPax(offered.descriptor, None, offered.depot.location, offered)
