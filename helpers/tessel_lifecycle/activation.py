"""Making a bank the host's image and having the host run it: links, settings, services; or all as it was before.

Where systemd does not run, only the bank is switched.
"""

import contextlib
import os
import syslog
import time

from tessel_lifecycle import (activation_mark, compliance, files, host_links, live_settings, paths, pending_reboot,
                              service_manager)
from tessel_lifecycle.activation_mark import REBOOT, Mark
from tessel_lifecycle.content import Content
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.host_links import PrefixTaken
from tessel_lifecycle.image import sync_file_system
from tessel_lifecycle.payload import UNITS, unit_file
from tessel_lifecycle.service_manager import ManagerError
from tessel_lifecycle.service_watch import STAY, STAY_PROVED, ServiceFailed, watch

_WITH_STATE = (".service", ".socket", ".timer", ".path")  # units that go on as they were begun

ACTIVE, NOT_ACTIVATED, REBOOT_PENDING = "ACTIVE", "NOT_ACTIVATED", "REBOOT_PENDING"


class Change:
    """What it takes to get the host from one content to another.

    Packages that change with the next boot only are `deferred`, and what they bring is left as it is. `renewed` names
    packages that stay, but were put right: what is up of them runs what was changed.
    """

    def __init__(self, image, old, new, renewed=()):
        self.old, self.new = old, new
        self.renewed = {name for name in renewed if name in new.descriptors and self._is_live(name)}
        self.old_files, self.files = host_links.linked_files(old), host_links.linked_files(new)
        self.before = pending_reboot.of_content(old) | pending_reboot.running(image)
        after = pending_reboot.of_content(new)
        self.changed = {name for name in self.before.keys() | after.keys() if self.before.get(name) != after.get(name)}
        self.changed |= self.renewed
        self.deferred = {name for name in self.changed if not self._is_live(name)}
        self.owners = {unit: descriptor for descriptor in new.descriptors.values()
                       if descriptor.name not in self.deferred for unit in descriptor.services}
        linked = {unit for unit, descriptor in self.owners.items() if self._is_linked(unit)}
        self.to_restart = sorted(unit for unit in linked if self.owners[unit].name in self.changed)
        self.to_start = sorted(self.owners.keys() - linked)
        self.kept = sorted(linked - set(self.to_restart))
        self.beside = sorted(unit for path in self.files for unit in [self._beside(path)] if unit)
        self.gone = self._gone()

    def _beside(self, path):
        """The unit, or pattern, of a file of a package that changed, if it is none that is declared."""
        one = self.files[path]
        if (not one.unit or one.unit in self.owners or not one.unit.endswith(_WITH_STATE) or not one.is_in_place
                or one.descriptor.name not in self.changed - self.deferred):
            return None
        return one.unit.replace("@.", "@*.")

    def _is_live(self, name):
        descriptor = self.new.descriptors.get(name) or self.old.descriptors.get(name)
        return descriptor is not None and descriptor.live_install

    def _is_linked(self, unit):
        one = self.files.get(UNITS + unit) or self.files.get(UNITS + unit_file(unit))
        return one is not None and one.is_in_place

    def _gone(self):
        """The units, patterns among them, that the new content does not have."""
        found = set()
        for place in host_links.present():
            path = "lib/" + place.removeprefix("/run/")
            one = self.old_files.get(path)
            if path.startswith(UNITS) and path not in self.files and not self._is_deferred(one):
                name = path.removeprefix(UNITS)
                if "/" not in name:
                    found.add(name.replace("@.", "@*."))
        declared = {unit for descriptor in self.old.descriptors.values() if descriptor.name not in self.deferred
                    for unit in descriptor.services}
        return sorted(found | {unit for unit in declared - self.owners.keys() if unit_file(unit) != unit
                               and host_links.is_ours("/run/systemd/system/" + unit_file(unit))})

    def _is_deferred(self, one):
        return one is not None and one.descriptor.name in self.deferred

    def links(self):
        """The files that are to be linked: all that a mask or a file of the host does not keep from it."""
        return [one for one in self.files.values() if not host_links.clash(one)]

    def settings(self):
        """The files of settings that are new or others, and take effect now."""
        return [one for path, one in self.files.items()
                if not one.is_unit and one.descriptor.name in self.changed - self.deferred
                and (one.descriptor.name in self.renewed or path not in self.old_files
                     or self.old_files[path].content != one.content)]

    def component_of(self, descriptor):
        """How messages name what a package belongs to."""
        for content in (self.new, self.old):
            for choice in content.components.values():
                if any(pax.name == descriptor.name for pax in choice.component.paxs):
                    return choice.component.label
        return descriptor.label

    def component_of_unit(self, unit):
        for descriptor in (*self.new.descriptors.values(), *self.old.descriptors.values()):
            if unit in descriptor.services or any(
                    file.path in (UNITS + unit, UNITS + unit.replace("@*.", "@."))
                    for file in descriptor.files):
                return self.component_of(descriptor)
        return unit


def check(image, before, after):
    """Raises ImageError for what is known beforehand to keep `after` from becoming active in place of `before`."""
    change = Change(image, before, after)
    _check_maintenance_mode(change)
    if not service_manager.is_running():
        return
    try:
        host_links.check_prefix()
    except PrefixTaken as error:
        raise _prefix_taken() from error
    for one in change.files.values():
        other = host_links.clash(one)
        if other:
            notes = [Note("NameTaken", one.path, one.descriptor.label, other)]
            if one.unit:
                raise ImageError("ServiceEnableError", change.component_of(one.descriptor), one.unit, notes=notes)
            raise ImageError("LiveInstallationError", notes=notes)


def _check_maintenance_mode(change):
    needing = [d.label for content in (change.new, change.old) for name, d in sorted(content.descriptors.items())
               if d.maintenance_mode and name in change.changed and d is (change.new.descriptors.get(name) or d)]
    if needing and not os.path.exists(paths.MAINTENANCE_MODE):
        raise ImageError("MaintenanceModeError", notes=[Note("MaintenanceModeNeeded", ", ".join(needing))])


def _prefix_taken():
    return ImageError("LiveInstallationError", notes=[Note("PrefixTaken", host_links.PREFIX, host_links.ROOT)])


def switch(image, bank, before, after, task, renewed=()):
    """Makes a complete bank the running one and has the host run it: `after` in place of `before`.

    `renewed` names packages of which files are right again: what is up of those that stay is restarted.
    Cannot be ended any more once it returns. When it raises, all is as it was. Returns the `activation` of the result.
    @throws ImageError, OSError
    """
    if not service_manager.is_running():
        return _only_switch(image, bank, task)
    change = Change(image, before, after, renewed)
    previous, start = image.current(), time.time()
    mark = Mark(bank, previous, task.id, task.operation, _active(change), pending_reboot.boot_id(),
                over=activation_mark.waiting(image, bank))
    try:
        sync_file_system(image.directory)  # while the services still run
        host_links.open_way(image, bank)
        if change.deferred:
            pending_reboot.write(image, pending_reboot.running(image) | _since_boot(change))
        _prepare_way_back(image, previous)
        mark.write(image)
        notes = _carry_out(image, mark, change, start)
        pending_reboot.write(image, _since_boot(change))
        _conclude(image, mark, change)
        task.commit()
    except BaseException as error:
        task.commit()
        # Before the mark nothing has changed; and when the host goes down, the boot decides.
        if mark.is_written(image) and not service_manager.is_stopping():
            _put_back(image, mark, after, before)
        if isinstance(error, ManagerError):
            raise ImageError("LiveInstallationError", detail=error) from error
        raise
    pending = sorted(change.deferred)
    return compliance.activation(REBOOT_PENDING if pending else ACTIVE, pending, notes)


def present(image, content, task):
    """The `activation` of a result where nothing is to be changed, or None when there is nothing to tell.

    An image of before the host knew of it is made a part of the host, and so is one of which links are gone.
    @throws ImageError, OSError
    """
    if not service_manager.is_running() or content.base_image is None:
        return None
    links = [one for one in host_links.linked_files(content).values() if not host_links.clash(one)]
    if not os.path.lexists(host_links.PREFIX) or not all(os.path.lexists(one.place) for one in links):
        return switch(image, image.current(), content, content, task)
    pending = pending_reboot.pending(image)
    return compliance.activation(REBOOT_PENDING, pending) if pending else None


def _only_switch(image, bank, task):
    task.commit()
    image.switch(bank)
    image.keep(bank)
    note = Note("NotActivated", "systemd does not run here")
    syslog.syslog(syslog.LOG_NOTICE, f"task {task.id}: {note.text}")
    return compliance.activation(NOT_ACTIVATED, notes=[note])


def _active(change):
    """Which of the old content's services are up, and of the units beside them that are to be replaced."""
    declared = sorted({unit for descriptor in change.old.descriptors.values() for unit in descriptor.services})
    beside = [unit for unit in change.beside if "*" not in unit]
    return [unit for unit, state in service_manager.states(declared + beside).items() if state.is_up]


def _since_boot(change):
    return {name: change.before.get(name) for name in change.deferred}


def _carry_out(image, mark, change, start):
    """All steps of an activation. Returns Notes. @throws ImageError, ManagerError, OSError"""
    _stop(change, change.gone, start)
    _point(image, mark.bank)
    try:
        host_links.make_prefix()
    except PrefixTaken as error:
        raise _prefix_taken() from error
    live_settings.remember(image.path(mark.bank, "root"), change.settings())
    _link(change)
    try:
        live_settings.load(change.settings())
    except ManagerError as error:
        raise ImageError("LiveInstallationError", detail=error) from error
    return _start(image, mark, change, start)


def _stop(change, units, start):
    try:
        service_manager.stop(units)
    except ManagerError as error:
        for unit in units:
            with contextlib.suppress(ManagerError):
                state = service_manager.states([unit])[unit]
                if "*" not in unit and state.active not in ("inactive", "failed"):
                    raise ImageError("ServiceDisableError", change.component_of_unit(unit), unit,
                                     notes=_why(unit, state.text, start)) from error
        raise ImageError("ServiceDisableError", change.component_of_unit(units[0]), units[0], detail=error) from error


def _link(change):
    """Makes the links, and has systemd read units again if they or their files are others."""
    changed = host_links.synchronize(change.links())
    paths_of_units = {path for path in change.old_files.keys() | change.files.keys()
                      if path.startswith(UNITS)}
    others = [path for path in paths_of_units if _content(change.old_files, path) != _content(change.files, path)]
    if changed or change.renewed or others:
        service_manager.reload()


def _content(linked, path):
    return path in linked and linked[path].content


def _start(image, mark, change, start):
    """Starts and restarts services and waits for them. Returns Notes. @throws ImageError, ManagerError"""
    states = service_manager.states(sorted(change.owners))
    masked = [unit for unit in states if states[unit].is_masked]
    stopped = [unit for unit in change.kept if unit not in mark.active and unit not in masked
               and not states[unit].is_up]
    watched = {unit: states[unit] for unit in (*change.to_start, *change.to_restart) if unit not in masked}
    watched |= {unit: None for unit in change.kept if unit in mark.active and unit not in masked}
    begun = [unit for unit in watched if unit not in change.kept]
    service_manager.reset_failures(begun)
    _restart_beside(change)
    _restart(change, begun)
    try:
        watch(watched, STAY_PROVED if activation_mark.is_proved(image, mark.bank) else STAY)
    except ServiceFailed as failure:
        raise ImageError("ServiceEnableError", change.component_of_unit(failure.unit), failure.unit,
                         notes=_why(failure.unit, failure.why, start)) from failure
    return ([Note("ServiceLeftAlone", unit, "it is masked") for unit in masked]
            + [Note("ServiceLeftAlone", unit, "it was stopped before") for unit in stopped])


def _restart_beside(change):
    """Has what is up beside the services restarted. @throws ManagerError"""
    states = service_manager.states(unit for unit in change.beside if "*" not in unit)
    service_manager.begin("try-restart", [unit for unit in change.beside if unit not in states
                                          or states[unit].is_up and not states[unit].is_masked])


def _restart(change, units):
    """Has services restarted. @throws ImageError with the one of which systemd takes no job, ManagerError"""
    try:
        service_manager.begin("restart", units)
    except ManagerError as error:
        unit = next((unit for unit in units if f" {unit}:" in str(error)), None)
        if unit is None:
            raise
        raise ImageError("ServiceEnableError", change.component_of_unit(unit), unit,
                         notes=[Note("ServiceLog", unit, str(error))]) from error


def _why(unit, state, start):
    lines = service_manager.last_log_lines(unit, start)
    return [Note("ServiceState", unit, state)] + ([Note("ServiceLog", unit, lines)] if lines else [])


def _conclude(image, mark, change):
    """The image is up: all of it, or all that needs no boot."""
    image.keep(mark.bank)
    if change.deferred:
        mark.phase = REBOOT
        mark.write(image)
    else:
        activation_mark.prove(image, mark.bank)
        activation_mark.remove(image)
    files.remove(live_settings.BEFORE)
    files.remove(image.path("current.back"))


def _prepare_way_back(image, previous):
    """A rename needs no room on the disk."""
    files.remove(image.path("current.back"))
    if previous:
        os.symlink(previous, image.path("current.back"))


def _leads_to(path):
    try:
        return os.readlink(path)
    except OSError:
        return None


def _point(image, bank):
    """Has `current` lead to a bank, or to none. @throws OSError"""
    current, back = image.path("current"), image.path("current.back")
    if _leads_to(current) == bank:
        return
    if bank is None:
        os.unlink(current)
    elif _leads_to(back) == bank:
        os.rename(back, current)
    else:
        image.switch(bank)
    files.sync_directory(image.directory)


def _put_back(image, mark, old, new):
    """From wherever an activation of `old` stands to `new`, which ran before. What cannot be done is logged."""
    done = []

    def step(function, *arguments):
        try:
            function(*arguments)
            done.append(function)
        except (OSError, ManagerError, ImageError, PrefixTaken, ServiceFailed) as error:
            syslog.syslog(syslog.LOG_ERR, f"Putting back the image from before: {error}")

    change = Change(image, old, new)
    step(service_manager.stop, change.gone)
    step(_point, image, mark.previous)
    if _point not in done:
        return  # the mark stays, and whoever comes next tries again
    step(_link, change)
    step(live_settings.restore)
    active = [unit for unit in mark.active if unit in change.owners]
    others = [unit for unit in change.to_restart if unit not in active]
    step(service_manager.stop, others)
    step(service_manager.reset_failures, [*change.gone, *active])
    step(service_manager.begin, "restart", [unit for unit in active if unit not in change.kept])
    step(service_manager.begin, "start", [unit for unit in active if unit in change.kept])
    step(_restart_beside, change)
    step(service_manager.begin, "start", [unit for unit in change.beside if unit in mark.active])
    step(watch, {unit: None for unit in active}, STAY_PROVED)
    if mark.bank != mark.previous and not activation_mark.is_proved(image, mark.bank):
        step(image.disown, mark.bank)
    step(activation_mark.withdraw, image, mark)
    files.remove(image.path("current.back"))


def content_of(image, bank):
    """What a bank holds; nothing when there is none, or it cannot be read."""
    try:
        return image.read(bank).content if bank else Content()
    except ImageError:
        return Content()


def recover(image):
    """Ends what an activation left that was killed: the image from before runs again. Under the image's lock.

    Returns whether there was one.
    """
    mark = activation_mark.read(image)
    if mark is None and (bank := image.current()):
        image.keep(bank)  # whoever switched to it may have died before it said so
    if mark is None or not service_manager.is_running():
        return False
    if mark.boots:
        return judge(image, mark) is not None
    if mark.phase == REBOOT:
        return False
    syslog.syslog(syslog.LOG_ERR, f"The activation of bank {mark.bank} has been broken off; putting back the image "
                                  "from before")
    _put_back(image, mark, content_of(image, mark.bank), content_of(image, mark.previous))
    return True


def start_declared(content):
    """Has the services of a content started that an administrator has not masked. @throws ManagerError"""
    states = service_manager.states(sorted(unit for d in content.descriptors.values() for unit in d.services))
    service_manager.begin("start", [unit for unit, state in states.items() if state.load == "loaded"])


def judge(image, mark):
    """Waits for the services of an image that runs since the boot but has not come up well before.

    Returns None when they have, and the mark is gone; or else the ImageError for which the image from before runs
    again. When the host goes down meanwhile, the next boot decides.
    """
    content = content_of(image, mark.bank)
    change, start = Change(image, content, content), time.time() - 600
    units = dict.fromkeys(unit for unit, state in service_manager.states(sorted(change.owners)).items()
                          if state.load == "loaded")
    try:
        watch(units, STAY)
    except ServiceFailed as failure:
        if service_manager.is_stopping():
            return None
        error = ImageError("ServiceEnableError", change.component_of_unit(failure.unit), failure.unit,
                           notes=_why(failure.unit, failure.why, start) + [Note("PutBack")])
        syslog.syslog(syslog.LOG_ERR, f"Bank {mark.bank} of the image does not come up: {failure}")
        before = content_of(image, mark.previous)
        mark.active = sorted(unit for descriptor in before.descriptors.values() for unit in descriptor.services)
        _put_back(image, mark, content, before)
        return error
    image.keep(mark.bank)
    activation_mark.prove(image, mark.bank)
    activation_mark.remove(image)
    return None
