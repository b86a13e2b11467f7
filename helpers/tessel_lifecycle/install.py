"""Bringing a resolved content onto the host: staging its PAXs, building the other bank, switching."""

import contextlib
import os

from tessel_lifecycle import files, pax
from tessel_lifecycle.depot_notes import why_not_read
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import ContentError, FetchError
from tessel_lifecycle.host import check_admitted
from tessel_lifecycle.image import InstalledPax
from tessel_lifecycle.task import utc_now

_SPARE = 16 << 20  # bytes to leave free on the file system of the image


class Meter:
    """Turns bytes done into a percentage between `low` and `high` and tells it to `report`."""

    def __init__(self, report, low, high, total):
        self._report, self._low, self._span, self._total, self._done = report, low, high - low, max(total, 1), 0

    def add(self, count):
        self._done += count
        self._report(self._low + self._span * min(self._done / self._total, 1))


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


def stage(image, paxs, report, low, high):
    """Downloads and verifies PAXs into the stage, as far as they are not there. Returns the bytes brought.

    Progress goes from `low` to `high`. @throws ImageError
    """
    meter, brought = Meter(report, low, high, sum(p.size for p in paxs)), 0
    with installation_errors():
        os.makedirs(image.stage, exist_ok=True)
        for offered in paxs:
            path = staged(image, offered)
            if os.path.exists(path) and files.sha256(path) == offered.sha256:
                meter.add(offered.size)
                continue
            _check_space(image.stage, offered.size)
            _download(offered, path, meter.add)
            brought += offered.size
        files.sync_directory(image.stage)
    return brought


def staged(image, offered):
    """Where a PAX lies in the stage; named by digest, so that what lies there is either it or not there."""
    return os.path.join(image.stage, offered.sha256 + ".pax")


def _download(offered, path, on_bytes):
    source = offered.depot.source
    try:
        source.download(offered.file, path, offered.size, offered.sha256, on_bytes)
        pax.verify(path, offered.descriptor)
    except ContentError as error:
        raise ImageError("PaxSigDigestError", offered.label, detail=error) from error
    except FetchError as error:
        raise ImageError("PaxDownloadError", error.url, detail=error, notes=why_not_read(error)) from error
    except ImageError:
        files.remove(path)
        raise


def apply(image, plan, task):
    """Makes the plan's content the running image and empties the stage. Progress goes on from 60. @throws ImageError"""
    with installation_errors():
        _check_space(image.directory, sum(d.installed_size for d in plan.content.descriptors.values()))
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
    stage(image, [offered], lambda percent: None, 0, 0)
    pax.unpack(staged(image, offered), offered.descriptor, root, meter.add)
    plan.content.descriptors[descriptor.name] = offered.descriptor
    return InstalledPax(offered.descriptor, None, offered.depot.location)


def _check_space(directory, size):
    status = os.statvfs(directory)
    if status.f_bavail * status.f_frsize < size + _SPARE:
        raise OSError(28, f"{size} bytes are needed", directory)


@contextlib.contextmanager
def installation_errors():
    """Tells an error of the disk as a failed installation."""
    try:
        yield
    except OSError as error:
        raise ImageError("InstallationError", detail=error) from error
