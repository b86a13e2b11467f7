"""Packages that are kept as they came, what is made of them, and what goes when space is short."""

import contextlib
import json
import os
import pathlib
import random
import subprocess
import time
import uuid

import pytest
from depot_maker import base_image, component, package, write_depot
from sandboxed_host import LIFECYCLE
from tessel_lifecycle import paths

IMAGE, STORE, STAGE = (LIFECYCLE / path for path in ("image", "image/store", "image/stage"))
EXTRACTS = pathlib.Path(paths.EXTRACTED_DEPOTS)
MIB = 1 << 20


def noise(size, seed):
    """A text of `size` bytes of which packing leaves half."""
    return random.Random(seed).randbytes(size // 2).hex()


@pytest.fixture(scope="module")
def location(tmp_path_factory):
    """Each base image has another package p, and the same package q."""
    units = [component("d", paxs=["q"]), package("q", {"lib/q": noise(2 * MIB, "q"), "bin/q": ("link", "../lib/q")})]
    for n in (1, 2, 3):
        units += [base_image(f"8.0-{n}", {"c": f"{n}-1", "d": "1-1"}), component("c", f"{n}-1", paxs=[f"p {n}-1"]),
                  package(f"p {n}-1", {"lib/p": noise(2 * MIB, n), "etc/p": str(n)})]
    return write_depot(tmp_path_factory.mktemp("kept") / "depot", *units)


def line(verb, location):
    return f"software --{verb} --software-spec DOCUMENT --depot {location} --task-id ID"


def spec(n):
    return {"base_image": {"version": f"8.0-{n}"}}


def apply(host, location, n):
    return host.result(line("apply", location), spec(n))


def names(folder):
    return {path.name for path in folder.iterdir()} if folder.exists() else set()


def contents(folder):
    return {path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()}


@pytest.fixture
def keeping_none():
    preferences = pathlib.Path(paths.PREFERENCES)
    preferences.write_text("keep_packages = false\n")
    yield
    preferences.unlink()


def extract(host):
    result = host.result("depots --extract --task-id ID")
    return pathlib.Path(result["location"].removeprefix("file://")) / "paxs"


def test_an_extract_is_what_was_installed(host, location):
    """Byte for byte, whether a package was kept, was not, or was damaged since."""
    apply(host, location, 1)
    assert {path.stat().st_nlink for path in STORE.iterdir()} == {1} and not names(STAGE)
    original = {name: data for name, data in contents(location + "/paxs").items() if name in ("p-1-1.pax", "q-1-1.pax")}
    whole = extract(host)
    assert contents(whole) == original and len(names(STORE)) == 2
    assert {path.samefile(kept) for path in whole.iterdir() for kept in STORE.iterdir()} == {True, False}
    for damage in (lambda path: path.write_bytes(b"other"), lambda path: path.unlink()):
        damage(sorted(STORE.iterdir())[0])
        assert contents(extract(host)) == original


def test_what_neither_image_holds_is_not_kept(host, location):
    kept = []
    for n in (1, 2, 3):
        apply(host, location, n)
        kept.append(names(STORE))
    assert [len(found) for found in kept] == [2, 3, 3] and len(kept[0] & kept[1] & kept[2]) == 1 and not names(STAGE)


def test_nothing_is_kept_where_that_is_not_wanted(host, location, keeping_none):
    apply(host, location, 1)
    assert not names(STORE) | names(STAGE) and len(contents(extract(host))) == 2


@contextlib.contextmanager
def without_packages(location):
    """Whoever asks the depot for a package meanwhile gets none."""
    folder = pathlib.Path(location, "paxs")
    folder.rename(folder.with_name("away"))
    yield
    folder.with_name("away").rename(folder)


def test_a_failed_apply_leaves_the_stage(host, location):
    """One of the staged packages is damaged: it is noticed, and brought again when there is a depot."""
    host.result(line("stage", location), spec(1))
    staged = sorted(STAGE.iterdir())
    size = staged[0].stat().st_size
    staged[0].write_bytes(bytes(size))
    with without_packages(location):
        assert host.error(line("apply", location), spec(1))[0] == "PaxDownloadError"
    assert names(STAGE) == {staged[1].name} and not (IMAGE / "a").exists()
    assert apply(host, location, 1)["downloaded"] == size


def test_what_needs_maintenance_mode_is_staged_before(host, tmp_path):
    location = write_depot(tmp_path / "depot", base_image("8.0-1", {"c": "1-1"}), component("c", paxs=["p"]),
                           package("p", {"etc/p": "p"}, maintenance_mode=True))
    assert host.result(line("scan", location), spec(1))["status"] == "INCOMPATIBLE"
    assert host.result(line("stage", location), spec(1))["paxs"] == 1
    assert host.error(line("apply", location), spec(1))[0] == "MaintenanceModeError" and not (IMAGE / "a").exists()
    mode = pathlib.Path(paths.MAINTENANCE_MODE)
    mode.parent.mkdir(parents=True, exist_ok=True)
    mode.touch()
    try:
        assert apply(host, location, 1)["downloaded"] == 0
    finally:
        mode.unlink()


def test_extracts_do_not_stay(host, location):
    apply(host, location, 1)
    young, old = extract(host).parent, extract(host).parent
    part = EXTRACTS / f"{uuid.uuid4()}.part"
    part.mkdir()
    day_ago = time.time() - 86401
    os.utime(old, (day_ago, day_ago))
    host.result(line("scan", location), spec(1))
    assert names(EXTRACTS) == {young.name}


@pytest.fixture
def disk(host):
    """Gives the image a file system of its own; what is returned leaves so many MiB free there."""
    IMAGE.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", IMAGE], check=True)

    def leave(free):
        status = os.statvfs(IMAGE)
        used = (status.f_blocks - status.f_bfree) * status.f_frsize
        subprocess.run(["mount", "-o", f"remount,size={used + int(free * MIB)}", IMAGE], check=True)
    yield leave
    subprocess.run(["umount", IMAGE], check=True)


def test_too_little_space_is_told_before_anything_is_fetched(host, location, disk):
    disk(20)
    scan = host.result(line("scan", location), spec(1))
    needed, free = (scan[name]["OPTIONAL"] for name in ("required_space", "free_space"))
    (warning,) = [entry["STRUCTURE"]["com.tessel.orbi.std.localizable_message"]
                  for entry in scan["warnings"]["OPTIONAL"]]
    assert 22 * MIB < needed < 23 * MIB and 20 * MIB - 65536 < free <= 20 * MIB
    assert warning["args"] == [str(needed), str(IMAGE), str(free)]
    for verb in ("stage", "apply"):
        record = host.task(line(verb, location), spec(1))
        assert record["status"] == "FAILED" and not names(STAGE)
        assert "SpaceShort" in record["exception"] and json.dumps(warning["args"][0])[1:-1] in record["exception"]


@pytest.mark.parametrize("free, spare_stays", [(24, True), (16.5, False)])
def test_the_spare_image_goes_only_when_its_space_is_needed(host, location, disk, free, spare_stays):
    for n in (1, 2):
        apply(host, location, n)
    disk(free)
    with without_packages(location):
        assert host.error(line("apply", location), spec(3))[0] == "PaxDownloadError"
    assert (IMAGE / "a").exists() == spare_stays
    assert host.result(line("scan", location), spec(2))["status"] == "COMPLIANT"
    apply(host, location, 3)
    assert host.result(line("scan", location), spec(3))["status"] == "COMPLIANT"
