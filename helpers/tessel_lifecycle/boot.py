"""The image at the host's boot: made a part of the host again, and watched if it has not come up well before.

An image that was switched to but never came up gets one boot; then the host goes back to the other.
"""

import contextlib
import os
import stat
import syslog
import uuid

from tessel_lifecycle import activation, activation_mark, files, host_links, live_settings, paths, pending_reboot
from tessel_lifecycle import service_manager
from tessel_lifecycle.banks import BANKS
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.image import Image
from tessel_lifecycle.service_manager import ManagerError
from tessel_lifecycle.task import Task

_OPERATION = "com.tessel.ryx.kestrel_daemon.software.apply$task"


def bring_up(_):
    """Early at boot: makes the links, loads the settings, and has the services started without waiting for them."""
    image = Image(paths.IMAGE)
    if not service_manager.is_running() or not os.path.lexists(image.path("current")):
        return ""
    with _locked_at_last(image):
        try:
            pending_reboot.boot_id()  # before units do that see another
            _choose_bank(image)
        except (OSError, ImageError) as error:
            _log(f"What was switched to cannot be looked after: {error}")
        files.remove(image.path("current.back"))
        if not pending_reboot.running(image):
            files.remove(pending_reboot.path_of(image))
        _make_part_of_host(image)
    return ""


@contextlib.contextmanager
def _locked_at_last(image):
    """The image's lock, for which others are waited for; on a disk that takes nothing there is none."""
    with contextlib.ExitStack() as stack:
        while True:
            try:
                stack.enter_context(image.locked())
                break
            except ImageError as error:
                if error.name != "LockingError":
                    _log(f"The image cannot be locked: {error}")
                    break
            service_manager.pause()
        yield


def watch(_):
    """After that: waits for the services of an image that has not come up well before, and goes back when they fail."""
    image = Image(paths.IMAGE)
    if service_manager.is_running():
        with _locked_at_last(image):
            mark = activation_mark.read(image)
            if mark is not None and mark.boots:
                why = activation.judge(image, mark)
                if why:
                    _record_return(mark, why)
    return ""


def _choose_bank(image):
    """Goes back to the other bank where the current one has had its chance, or cannot be used."""
    mark = activation_mark.read(image)
    bank = os.readlink(image.path("current"))  # which may name one that is gone
    why, serious = _damage(image, bank)
    if mark is not None and mark.bank != bank:  # it was not switched to
        mark = activation_mark.withdraw(image, mark)
    if mark is not None and mark.boot != pending_reboot.boot_id():
        if mark.boots and not why:
            why = "it did not come up at its first boot"
        mark.boots, mark.boot = mark.boots + 1, pending_reboot.boot_id()
        try:
            mark.write(image)
        except OSError as error:
            _log(f"Cannot count the boots of bank {bank}: {error}")
    if why:
        _log(f"Bank {bank} of the image: {why}")
    if why and (serious or mark is not None):
        _go_back(image, bank, mark, why)


def _go_back(image, bank, mark, why):
    other = next((one for one in BANKS if one != bank and image.is_fit(one)), None)
    if other is None or mark is not None and mark.previous != other:
        _log(f"Staying with bank {bank} of the image, since there is no other to go back to")
        return
    damage, _ = _damage(image, other)
    if damage:
        _log(f"Staying with bank {bank} of the image, since bank {other} cannot be used: {damage}")
        return
    image.switch(other)
    if not activation_mark.is_proved(image, bank):
        with contextlib.suppress(OSError):
            image.disown(bank)
    activation_mark.withdraw(image, mark)
    _log(f"Went back to bank {other} of the image")
    _record_return(mark, ImageError("LiveInstallationError", notes=[Note("BankUnusable", bank, why), Note("PutBack")]))


def _damage(image, bank):
    """Why a bank is not as it was made, or None; and whether nothing can be said of what it holds."""
    try:
        installed = image.read(bank)
    except ImageError as error:
        return f"its database cannot be read: {error}", True
    for descriptor in installed.content.descriptors.values():
        for file in descriptor.files:
            if not _is_there(image.path(bank, "root", file.path), file):
                return f"{file.path} of {descriptor.label} is not there as it was installed", False
    return None, False


def _is_there(path, file):
    try:
        status = os.lstat(path)
    except OSError:
        return False
    if file.type == "file":
        return stat.S_ISREG(status.st_mode) and status.st_size == file.size
    return stat.S_ISLNK(status.st_mode) if file.type == "link" else stat.S_ISDIR(status.st_mode)


def _make_part_of_host(image):
    """What can be done is done: one file that the host has, too, must not cost it the others."""
    bank = image.current()
    content = activation.content_of(image, bank)
    try:
        host_links.open_way(image, bank)
        host_links.make_prefix()
    except (OSError, host_links.PrefixTaken) as error:
        _log(f"The image's programs are not on this host: {error} is in the way")
        return
    linked = []
    for one in host_links.linked_files(content).values():
        other = host_links.clash(one)
        if other and not other.startswith("/etc/"):  # what is there comes before a link anyhow
            _log(f"{one.path} of {one.descriptor.label} has no effect: the host has {other}")
        else:
            linked.append(one)
    try:
        if host_links.synchronize(linked):
            service_manager.reload()
    except (OSError, ManagerError) as error:
        _log(f"The image's units cannot be made known: {error}")
    try:
        live_settings.load([one for one in linked if not one.is_unit])
    except (OSError, ManagerError) as error:
        _log(f"The image's settings: {error}")
    try:
        activation.start_declared(content)
    except ManagerError as error:
        _log(f"The image's services cannot be started: {error}")


def _record_return(mark, error):
    """Ends the task that brought the image, or makes a record of its own where that has ended already."""
    with contextlib.suppress(OSError):
        if mark is None or Task(mark.task_id, mark.operation, ()).fail(error):
            Task(str(uuid.uuid4()), mark.operation if mark else _OPERATION, ()).fail(error)


def _log(text):
    syslog.syslog(syslog.LOG_ERR, text)
