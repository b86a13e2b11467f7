"""The two banks: what an apply leaves when it ends well, fails, or dies at any moment."""

import errno
import itertools
import json
import os
import resource
import shutil
import signal
import stat
import subprocess
import sys
import threading
import time
import traceback

import pytest
from depot_maker import base_image, component, package, write_depot
from tessel_lifecycle import files, install, package_store, pax
from tessel_lifecycle.depot import Depot
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import Patience
from tessel_lifecycle.image import Image
from tessel_lifecycle.plan import Plan
from tessel_lifecycle.progress import Progress
from tessel_lifecycle.resolve import resolve
from tessel_lifecycle.spec import SoftwareSpec
from tessel_lifecycle.task import Task, Terminated
from tessel_lifecycle.version import Version

ONCE = Patience(attempts=1, timeout=2, pause=0, limit=2)


class QuietTask:
    id = operation = "quiet"

    def progress(self, percent):
        pass

    def commit(self):
        pass


class EndingTask(QuietTask):
    commit = Task.commit


@pytest.fixture(autouse=True)
def keep_packages_on_a_full_disk(monkeypatch):
    monkeypatch.setattr(package_store, "_LEAST_FREE", 0)


@pytest.fixture
def location(tmp_path):
    return write_depot(
        tmp_path / "depot",
        base_image("8.0-1", {"c": "1-1", "d": "1-1"}), base_image("8.0-2", {"c": "2-1", "d": "1-1"}),
        base_image("8.0-3", {"d": "1-1"}),
        component("c", paxs=["p"]), component("c", "2-1", paxs=["p 2-1"]), component("d", paxs=["q"]),
        package("p", {"etc/x": "old\n", "bin/run": "run"}),
        package("p 2-1", {"etc/x": "new\n", "lib/y": "y" * 5000, "lib/link": ("link", "../etc/x")}),
        package("q", {"etc/q": "both\n"}))


def plan(image, location, version):
    installed, catalogue = image.read(), Depot(location, ONCE).catalogue()
    offered = dict(catalogue.paxs)
    catalogue.paxs.update(installed.catalogue().paxs)
    return Plan(resolve(SoftwareSpec({"base_image": {"version": version}}), catalogue), installed, offered)


def apply(image, location, version):
    with image.locked():
        made = plan(image, location, version)
        install.apply(image, made, QuietTask())


def state(image):
    """The running image's version, after its files were compared with its database."""
    installed = image.read()
    if installed.content.base_image is None:
        return None
    for descriptor in installed.content.descriptors.values():
        for file in descriptor.files:
            path = os.path.join(installed.root, file.path)
            if file.type == "file":
                assert (os.path.getsize(path), files.sha256(path)) == (file.size, file.sha256)
    listed = {file.path for d in installed.content.descriptors.values() for file in d.files}
    assert {entry["path"] for entry in pax.listing(installed.root)} == listed
    return installed.content.base_image.version.text


def test_a_file_that_cannot_be_removed_is_told_with_its_component(tmp_path, location):
    image = Image(str(tmp_path / "image"))
    for version in ("8.0-1", "8.0-2"):
        apply(image, location, version)
    held = image.path("a", "root", "etc")
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", held], check=True)
    try:
        with pytest.raises(ImageError) as error:
            image.new_bank()
        assert (error.value.name, error.value.arguments) == ("ComponentUnmountError", ["c(2-1)"])
    finally:
        subprocess.run(["umount", held], check=True)
    assert (image.new_bank(), state(image)) == ("a", "8.0-2")


def test_banks_change_places(tmp_path, location):
    image = Image(str(tmp_path / "image"))
    assert state(image) is None and image.current() is None
    for version, bank in (("8.0-1", "a"), ("8.0-2", "b")):
        apply(image, location, version)
        assert (state(image), image.current(), os.listdir(image.stage)) == (version, bank, [])
    assert image.read().component_dates["d"] < image.read().component_dates["c"]
    assert plan(image, location, "8.0-2").is_done
    with pytest.raises(ImageError) as error:
        plan(image, location, "8.0-1").check()
    assert (error.value.name, error.value.arguments) == ("ComponentDowngradeError", ["c(2-1 to 1-1)"])


CHANGES = {"open", "write", "flush", "fsync", "close", "rename", "mkdir", "link", "symlink", "unlink", "rmdir", "chmod",
           "fchmod", "utime"}


def in_a_child(work, kill=lambda change: None):
    """Runs `work` in a process in which `kill(number)` is called before each change of the file system. Returns how the
    process ended."""
    child = os.fork()
    if child == 0:
        changes = itertools.count()

        def count(_, event, function):
            if event == "c_call" and function.__name__ in CHANGES:
                kill(next(changes))

        threading.setprofile(count)
        sys.setprofile(count)
        try:
            work()
            os._exit(0)
        finally:
            traceback.print_exc()
            os._exit(1)
    end = time.monotonic() + 30
    while not (ended := os.waitpid(child, os.WNOHANG))[0]:
        if time.monotonic() > end:
            os.kill(child, signal.SIGABRT)
        time.sleep(0.001)
    return os.waitstatus_to_exitcode(ended[1])


def killing(point, number):
    return lambda change: change == point and os.kill(os.getpid(), number)


def test_death_at_every_point_leaves_the_old_or_the_new_image(tmp_path, location):
    seen, point, image = [], 0, Image(str(tmp_path / "image"))
    apply(image, location, "8.0-1")
    while ended := in_a_child(lambda: apply(image, location, "8.0-2"), killing(point, signal.SIGKILL)):
        assert ended == -signal.SIGKILL
        seen.append(state(image))
        assert image.spare() == ("a" if seen[-1] == "8.0-2" else None)  # what never ran is nothing to go back to
        if seen[-1] == "8.0-2":
            image.switch("a")
        point += 1
    assert state(image) == "8.0-2"
    assert point > 80 and {"8.0-1", "8.0-2"} == set(seen)


def test_an_apply_that_is_asked_to_end_does_so_cleanly(tmp_path, location):
    """At every point: no thread goes on, and nothing is left of the new bank unless it is the running one."""
    point, image, terminated = 0, Image(str(tmp_path / "image")), 7

    def terminate(number, _):
        signal.signal(number, signal.SIG_IGN)
        raise Terminated()

    def work():
        signal.signal(signal.SIGTERM, terminate)
        try:
            with image.locked():
                install.apply(image, plan(image, location, "8.0-2"), EndingTask())
        except Terminated:
            threads = threading.active_count()
            os._exit(terminated if threads == 1 else 1)

    apply(image, location, "8.0-1")
    while ended := in_a_child(work, killing(point, signal.SIGTERM)):
        assert ended == terminated and state(image) == "8.0-1" and not (tmp_path / "image/b").exists()
        point += 1
    assert point > 40 and state(image) == "8.0-2"


def test_payloads_that_take_much_memory_are_unpacked_one_by_one(tmp_path, monkeypatch):
    """Each takes 65 MiB, and two do not fit."""
    monkeypatch.setattr(pax, "PRESET", 9)
    names = [f"p{number}" for number in range(4)]
    location = write_depot(tmp_path / "depot", base_image("8.0-1", {"c": "1-1"}), component("c", paxs=names),
                           *[package(name, {f"lib/{name}": name * 1000}) for name in names])
    image = Image(str(tmp_path / "image"))

    def work():
        with open("/proc/self/status") as file:
            used = next(int(line.split()[1]) << 10 for line in file if line.startswith("VmData"))
        resource.setrlimit(resource.RLIMIT_DATA, (used + (110 << 20),) * 2)
        apply(image, location, "8.0-1")

    assert in_a_child(work) == 0 and state(image) == "8.0-1"


def test_an_image_of_before_goes_on(tmp_path, location):
    """One without files of a known time and packages of a known digest: its files are copied once, then shared."""
    image, shared = Image(str(tmp_path / "image")), []
    apply(image, location, "8.0-1")
    database = tmp_path / "image/a/image.json"
    document = json.loads(database.read_text())
    for entry in document["paxs"]:
        del entry["file"]
    database.write_text(json.dumps(document))
    for path in (tmp_path / "image/a/root").rglob("*"):
        os.utime(path, (1234567890.5, 1234567890.5))
    shutil.rmtree(image.store)
    for version in ("8.0-2", "8.0-3"):
        made = plan(image, location, version)
        del made.offered["q", Version("1-1")]
        with image.locked():
            install.apply(image, made, QuietTask())
        assert state(image) == version
        shared.append((tmp_path / "image/a/root/etc/q").samefile(tmp_path / "image/b/root/etc/q"))
    assert shared == [False, True]


def edit(file):
    """In place: where banks share the file, it is changed in both."""
    status = file.stat()
    with open(file, "r+") as opened:
        opened.write("edit")
    assert file.stat().st_size == status.st_size


# What is done to the file etc/q of the running bank: whether the next bank has the same file nevertheless.
TOUCHES = {"nothing": (lambda file: None, True),
           "edited": (edit, False),
           "replaced": (lambda file: file.unlink() or file.write_text("other"), False),
           "another mode": (lambda file: file.chmod(0o600), False),
           "another owner": (lambda file: os.chown(file, 1, 1), False),
           "another time": (os.utime, False),
           "a link": (lambda file: file.unlink() or file.symlink_to("q.new"), False),
           "lost": (lambda file: file.unlink(), False)}


@pytest.mark.parametrize("touch", TOUCHES)
@pytest.mark.parametrize("versions", [("8.0-1", "8.0-2"), ("8.0-1", "8.0-2", "8.0-2")], ids=["once", "shared before"])
def test_banks_share_the_files_that_nobody_touched(tmp_path, location, versions, touch):
    """What was changed comes from the kept package: no depot has it any more."""
    image, (damage, shares) = Image(str(tmp_path / "image")), TOUCHES[touch]
    for version in versions[:-1]:
        apply(image, location, version)
    old, new = (tmp_path / f"image/{bank}/root/etc/q" for bank in ("ab" if len(versions) == 2 else "ba"))
    damage(old)
    made = plan(image, location, versions[-1])
    del made.offered["q", Version("1-1")]
    with image.locked():
        assert install.apply(image, made, QuietTask())[0] == (made.new[0].size if len(versions) == 2 else 0)
    assert state(image) == versions[-1] and (new.exists() and old.exists() and new.samefile(old)) == shares
    assert stat.S_IMODE(new.stat().st_mode) == 0o644 and new.stat().st_uid == os.geteuid()
    (tmp_path / "image" / image.current() / "root/etc/q").unlink()
    shutil.rmtree(image.store)
    made = plan(image, location, "8.0-2")
    made.offered.clear()
    with pytest.raises(ImageError) as error, image.locked():
        install.apply(image, made, QuietTask())
    assert error.value.name == "InstallationError" and image.current() == new.parts[-4]


@pytest.mark.parametrize("damage, name", [
    (lambda image: (image / "current").unlink() or (image / "current").symlink_to("c"), "StatelessError"),
    (lambda image: (image / "a").rename(image / "c"), "StatelessError"),
    (lambda image: (image / "a/image.json").unlink(), "DatabaseIOError"),
    (lambda image: (image / "a/image.json").write_text("{"), "DatabaseFormatError"),
    (lambda image: (image / "a/image.json").write_text("{}"), "DatabaseFormatError"),
    (lambda image: (image / "a/descriptors/p.json").write_text("{}"), "DatabaseFormatError"),
    (lambda image: shutil.copy(image / "a/descriptors/q.json", image / "a/descriptors/p.json"), "DatabaseFormatError")],
    ids=["other bank", "no bank", "no database", "not JSON", "empty", "bad descriptor", "exchanged descriptor"])
def test_a_damaged_image_is_told(damage, name, tmp_path, location):
    image = Image(str(tmp_path / "image"))
    apply(image, location, "8.0-1")
    damage(tmp_path / "image")
    with pytest.raises(ImageError) as error:
        image.read()
    assert error.value.name == name


def test_a_full_disk_leaves_the_old_image(tmp_path, location, monkeypatch):
    """A disk that fills up at the n-th file, simulated where files are opened: a real one needs a mount."""
    image = Image(str(tmp_path / "image"))
    apply(image, location, "8.0-1")
    left = 0

    def open_until_full(path, flags, *more, real=os.open, **named):
        nonlocal left
        if flags & os.O_CREAT:
            left -= 1
            if left < 0:
                raise OSError(errno.ENOSPC, "No space left on device", path)
        return real(path, flags, *more, **named)

    monkeypatch.setattr(os, "open", open_until_full)
    names = set()
    for free in range(20):
        left = free
        try:
            apply(image, location, "8.0-2")
            break
        except ImageError as error:
            names.add(error.name)
            assert state(image) == "8.0-1"
    assert state(image) == "8.0-2" and names <= {"InstallationError", "DatabaseIOError"} and names


def test_progress_follows_what_is_still_to_come(monkeypatch):
    """Of 100 MB that come at 5 MB/s and 60 MB that are unpacked at half of the speed that was thought."""
    clock, told = [0.0], []
    monkeypatch.setattr("time.monotonic", lambda: clock[0])
    progress = Progress(lambda percent: told.append(round(percent)), download=100e6, unpack=60e6)
    for name, seconds, done in (("download", 10, 50e6), ("", 0, -25e6), ("", 10, 75e6), ("unpack", 1, 30e6),
                                ("", 1, 30e6)):
        if name:
            progress.enter(name)
        clock[0] += seconds
        progress.add_and_tell(done)
    assert told == [5, 50, 50, 95, 95, 95, 99]
