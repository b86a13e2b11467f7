"""Bringing a resolved content onto the host: building the other bank of it, switching."""

import contextlib

from tessel_lifecycle import activation, archive, files, installed_file, package_store, parallel, pax
from tessel_lifecycle.build import Build
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.progress import Progress
from tessel_lifecycle.space import Room
from tessel_lifecycle.staging import installation_errors, stage
from tessel_lifecycle.task import utc_now

_MOST_MEMORY = 96 << 20  # for all decoders that run at once
_ACTIVATION = 1          # seconds that a switch is thought to take


def prepare(image, plan, task):
    """Brings what the plan's content needs into the stage, as far as the host does not have it. Returns the bytes
    brought. @throws ImageError, before anything is fetched, when stage and bank do not fit on the file system"""
    with installation_errors():
        build = Build(image, plan)
        progress = Progress(task.progress, download=sum(p.size for p in build.missing))
        return _bring(image, build, progress)


def apply(image, plan, task):
    """Makes the plan's content the running image. Returns the bytes that were brought for it, and the `activation` of
    the task's result. @throws ImageError

    What an apply that fails has brought stays in the stage; after one that succeeds it is among the kept packages.
    """
    with installation_errors():
        now, build = utc_now(), Build(image, plan)
        progress = Progress(task.progress, download=sum(p.size for p in build.missing),
                            unpack=build.size, activate=_ACTIVATION)
        brought = _bring(image, build, progress)
        bank = image.new_bank()
        try:
            Room(image, build.wanted).make(build.need().files)
            brought += _fill(image, bank, build, progress, now)
            progress.enter("activate")
            activated = activation.switch(image, bank, plan.installed.content, plan.content, task, plan.damaged)
        except BaseException:
            with contextlib.suppress(OSError, ImageError):
                if image.current() != bank:
                    image.discard(bank)
            raise
        package_store.settle(image)
    return brought, activated


def _bring(image, build, progress):
    """Makes room for what is missing and downloads it. Returns the bytes brought."""
    missing, room, need = build.missing, Room(image, build.wanted), build.need()
    room.check(need)
    if not missing:
        return 0
    room.make(need.downloads)
    progress.enter("download")
    return stage(image, missing, progress.add_and_tell)


def _fill(image, bank, build, progress, now):
    """Puts files and database into a new bank. Returns the bytes that had to be brought after all."""
    root, content = image.path(bank, "root"), build.plan.content
    order = content.install_order()
    pax.make_directories(root, order)
    _reuse(root, build)
    progress.enter("unpack")
    brought = _Unpacking(image, root, build, progress, now).run()
    for descriptor in order:
        pax.set_directory_modes(root, descriptor.files)
    content.descriptors.update({part.descriptor.name: part.descriptor for part in build.unpacked})
    versions, old = content.versions(), build.plan.installed
    dates = {name: date for name, date in old.component_dates.items()
             if old.content.versions()[name] == versions.get(name)}
    try:
        image.write_database(bank, content, dates, build.paxs(), now)
    except OSError as error:
        raise ImageError("DatabaseIOError", detail=error) from error
    return brought


def _reuse(root, build):
    """Takes over what the running bank has; what was changed there since it was looked at is unpacked instead."""
    for present in list(build.reused):
        time = installed_file.installation_time(present.installed_at)
        if not pax.reuse(build.plan.installed.root, root, present.descriptor, time):
            pax.discard(root, present.descriptor)
            build.give_up(present)


class _Unpacking:
    """Unpacks what a build asks for, on all cores, each package read once: its digest is checked on the way."""

    def __init__(self, image, root, build, progress, now):
        self._image, self._root, self._build, self._progress = image, root, build, progress
        self._time = installed_file.installation_time(now)
        self._large, self._damaged = [], []

    def run(self):
        """Returns the bytes that had to be brought, for packages that were damaged since they were staged or kept."""
        brought, parts = 0, self._build.unpacked
        while parts:
            if missing := self._build.missing:
                brought += stage(self._image, missing)
            self._unpack(parts, parallel.MOST_THREADS, _MOST_MEMORY // parallel.threads())
            large, self._large = self._large, []
            for part in large:
                pax.discard(self._root, part.descriptor)
            self._unpack(large, 1, archive.XzStream.MOST_MEMORY)
            parts = [self._replaced(*damaged) for damaged in self._damaged]
            self._damaged = []
        return brought

    def _unpack(self, parts, threads, memory):
        largest_first = sorted(parts, key=lambda part: part.descriptor.installed_size, reverse=True)
        parallel.on_all_cores(lambda part, check: self._unpack_one(part, check, memory), largest_first,
                              self._progress.tell, threads)

    def _unpack_one(self, part, check, memory):
        def on_bytes(count):
            check()
            self._progress.add(count)

        path = package_store.find(self._image, part.file)
        try:
            pax.unpack(path, part.descriptor, self._root, self._time, on_bytes, memory)
        except archive.LargeDictionary:
            self._large.append(part)
        except ImageError as error:
            if files.sha256(path) == part.file.sha256:
                raise
            self._damaged.append((part, path, error))

    def _replaced(self, part, path, error):
        """The part of a damaged package, to be unpacked from another file."""
        pax.discard(self._root, part.descriptor)
        files.remove(path)
        if not package_store.find(self._image, part.file):
            part.use_offered(error)
        return part
