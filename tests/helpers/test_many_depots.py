"""Several depots as one, large ones, and metadata that is brought once."""

import json
import os
import pathlib
import resource
import socket
import subprocess

import pytest
from depot_maker import base_image, component, package, write_depot, write_metadata
from misbehaving_server import Server, answer
from sandboxed_host import LIFECYCLE, served
from tessel_lifecycle.depot import Depot
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import Patience
from tessel_lifecycle.many_depots import ManyDepots
from tessel_lifecycle.metadata_cache import LONGEST_KEPT, MetadataCache

ONCE = Patience(attempts=1, timeout=2, pause=0, limit=2)
DIGEST = "0" * 64


@pytest.fixture
def closed_port():
    """A location at which nobody listens."""
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield f"http://127.0.0.1:{taken.getsockname()[1]}"


def read(*locations, **more):
    return ManyDepots([str(location) for location in locations], ONCE, **more)


def names(notes):
    return [note.identifier.rpartition(".")[2] for note in notes]


def test_a_package_is_known_in_every_depot_that_has_the_same_file(tmp_path):
    ours = write_depot(tmp_path / "ours", package("p", {"x": "1"}), package("q", {"y": "1"}))
    same = write_depot(tmp_path / "same", package("p", {"x": "1"}), package("q", {"y": "other"}), package("r", {}))
    paxs = {pax.name: pax for pax in read(ours, same).catalogue.paxs.values()}
    where = {name: [depot.location for depot in pax.depots] for name, pax in paxs.items()}
    assert where == {"p": [ours, same], "q": [ours], "r": [same]} and paxs["p"].depot.location == ours
    assert [file.path for file in paxs["q"].descriptor.files] == ["y"]


LEFT_OUT = {
    "not reachable": (None, ["DepotLeftOut", "DepotConnectError", "DepotRefused"]),
    "broken": ({"base_images/b.json": b"{"}, ["DepotLeftOut", "MetadataFormatError", "Detail"]),
    "contradicts itself": (
        {f"components/{n}.json": {"name": "c", "version": "1", "vendor": str(n), "paxs": []} for n in range(2)},
        ["DepotLeftOut", "ComponentFormatError", "Detail"]),
}


@pytest.mark.parametrize("case", LEFT_OUT)
@pytest.mark.parametrize("place", range(2))
def test_a_dead_depot_is_left_out_while_another_lives(case, place, tmp_path, closed_port):
    members, told = LEFT_OUT[case]
    dead, heard = closed_port, []
    if members:
        dead = tmp_path / "dead"
        write_metadata(dead, members)
    locations = [write_depot(tmp_path / "living", base_image(), component("c"))]
    locations.insert(place, str(dead))
    depots = read(*locations, on_progress=heard.append)
    depots.check_any()
    assert names(depots.notes()) == told and depots.notes()[0].arguments == [str(dead)]
    assert len(depots.catalogue.base_images) == len(depots.catalogue.components) == 1
    assert heard == sorted(heard) and heard[-1] <= 1
    with pytest.raises(ImageError) as error:
        read(dead, dead).check_any()
    assert names(error.value.messages()) == told[1:]


def test_depots_that_contradict_each_other_are_refused(tmp_path):
    ours = write_depot(tmp_path / "ours", component("c"), base_image(vendor="us"))
    same = write_depot(tmp_path / "same", component("c"))
    other = write_depot(tmp_path / "other", component("c", paxs=["p"]))
    assert len(read(ours, same).catalogue.components) == 1
    with pytest.raises(ImageError) as error:
        read(ours, other)
    assert error.value.name == "ComponentFormatError"


def answers_of(folder):
    """What a server answers for a depot's index and metadata."""
    return answer(200, (folder / "index.json").read_bytes()), answer(200, (folder / "metadata.zip").read_bytes())


def test_metadata_is_brought_once(tmp_path):
    write_depot(tmp_path / "depot", base_image(), package("p", {"x": "1"}))
    index, metadata = answers_of(tmp_path / "depot")
    cache, size = MetadataCache(str(tmp_path / "image/kept")), (tmp_path / "depot/metadata.zip").stat().st_size
    folder = tmp_path / "image/kept"

    def read_from(*answers):
        heard = []
        with Server(*answers) as server:
            catalogue = Depot(server.url, ONCE, cache).catalogue(on_progress=heard.append)
            assert heard == sorted(heard) and heard[-1] <= 1
            assert len(catalogue.base_images) == 1 and catalogue.paxs.popitem()[1].descriptor.files
            assert len(server.requests) == len(answers)
            return server.requests

    read_from(index, metadata)
    (kept,) = folder.iterdir()
    assert kept.stat().st_mode & 0o777 == 0o600 and folder.stat().st_mode & 0o777 == 0o700
    read_from(index)
    for damage in (b"", b"x" * size):
        kept.write_bytes(damage)
        read_from(index, metadata)
        read_from(index)

    whole = kept.read_bytes()
    ended = subprocess.Popen(["true"])
    ended.wait()
    rest = answer(206, whole[100:], f"Content-Range: bytes 100-{size - 1}/{size}")
    for part, goes_on in ((".part", True), (f".{ended.pid}.0.part", True),
                          (f".{os.getpid()}.99.part", False)):
        kept.rename(folder / (kept.name + part))
        os.truncate(folder / (kept.name + part), 100)
        *_, asked = read_from(index, rest if goes_on else metadata)
        assert ("Range: bytes=100-" in asked) == goes_on
        assert goes_on == (os.listdir(folder) == [kept.name]) and kept.read_bytes() == whole


def test_what_nobody_used_for_long_goes(tmp_path):
    write_depot(tmp_path / "depot", base_image())
    folder = tmp_path / "image/kept"
    folder.mkdir(parents=True)
    for name, age in (("1" * 64, LONGEST_KEPT + 9), ("2" * 64, 9), ("3" * 64 + ".7.0.part", LONGEST_KEPT / 2),
                      ("4" * 64 + ".part", 9), ("not ours", LONGEST_KEPT + 9)):
        (folder / name).write_bytes(b"x")
        os.utime(folder / name, (then := (folder / name).stat().st_mtime - age, then))
    with Server(*answers_of(tmp_path / "depot")) as server:
        Depot(server.url, ONCE, MetadataCache(str(folder))).catalogue()
    left = sorted(name[0] for name in os.listdir(folder) if len(name) != 64 or name[0] * 64 == name)
    assert left == ["2", "4", "n"] and len(os.listdir(folder)) == 4


@pytest.mark.parametrize("folder", ["/dev/null/kept", "/proc/self/fdinfo/kept"])
def test_metadata_is_read_where_it_cannot_be_kept(folder, tmp_path):
    write_depot(tmp_path / "depot", base_image())
    with Server(*answers_of(tmp_path / "depot")) as server:
        assert Depot(server.url, ONCE, MetadataCache(folder)).catalogue().base_images


def test_a_document_that_changes_while_it_is_used_is_refused(tmp_path):
    """What was compared and resolved is what is installed, also where the depot is a folder that somebody writes to."""
    location = write_depot(tmp_path / "depot", base_image(), component("c"))
    (unit,) = Depot(location, ONCE).catalogue().components.values()
    assert unit.document["name"] == "c"
    for damage in (b"x", b""):
        (tmp_path / "depot/metadata.zip").write_bytes(damage * (tmp_path / "depot/metadata.zip").stat().st_size)
        with pytest.raises(ImageError) as error:
            unit.document
        assert (error.value.name, error.value.arguments) == ("MetadataFormatError", [f"{location}/metadata.zip"])


def in_memory_of(size, work):
    """Whether `work` ends well in a process that has so many bytes of memory for its data."""
    child = os.fork()
    if child == 0:
        try:
            resource.setrlimit(resource.RLIMIT_DATA, (size, size))
            work()
            os._exit(0)
        finally:
            os._exit(1)
    return os.waitpid(child, 0)[1] == 0


def test_large_metadata_takes_no_more_memory_than_is_used_of_it(tmp_path):
    """Of sixty packages, 60 MiB of file lists, one is asked for."""
    listed = [{"path": f"lib/{'x' * 30}/{n}", "type": "file", "size": n, "sha256": DIGEST} for n in range(7000)]
    descriptor = {"name": "NAME", "version": "1", "acceptance_level": "PARTNER", "files": listed,
                  "payload": {"name": "p", "size": 1, "sha256": DIGEST}}
    text = json.dumps({"version": "1", "size": 1, "sha256": DIGEST, "descriptor": descriptor})
    write_metadata(tmp_path, {f"paxs/{n}.json": text.replace("NAME", f"p{n}").encode() for n in range(60)})
    own = int(open("/proc/self/status").read().partition("VmData:")[2].split()[0]) << 10

    def use_one():
        catalogue = Depot(str(tmp_path), ONCE).catalogue()
        assert len(catalogue.paxs) == 60 and len(catalogue.paxs.popitem()[1].descriptor.files) == 7000

    assert len(text) * 60 > 60 << 20 and in_memory_of(own + (64 << 20), use_one)


LINES = {verb: f"software --{verb} --software-spec DOCUMENT --task-id ID" for verb in ("scan", "stage", "apply")}
SPEC = {"base_image": {"version": "8.0-1"}, "components": {"c": {"version": "1-1"}}}


@pytest.mark.parametrize("verb", LINES)
def test_a_task_warns_of_a_depot_that_it_could_do_without(host, verb, tmp_path):
    living = write_depot(tmp_path / "living", base_image(), component("c", paxs=["p"]), package("p", {"x": "1"}))
    result = host.result(f"{LINES[verb]} --depot {tmp_path} --depot {living}", SPEC)
    warnings = [entry["STRUCTURE"]["com.tessel.orbi.std.localizable_message"] for entry in
                result["warnings"]["OPTIONAL"]]
    assert [(entry["id"].rpartition(".")[2], entry["args"][:1]) for entry in warnings] == [
        ("DepotLeftOut", [str(tmp_path)]), ("DepotConnectError", []),
        ("DepotFileUnreadable", [f"{tmp_path}/index.json"])]


MISSING = {
    "a version": (SPEC | {"base_image": {"version": "9"}}, "BaseImageNotFound", ["BaseImageVersionsKnown"]),
    "a description": (SPEC | {"components": {}}, "MissingComponentError", ["Detail"]),
}


@pytest.mark.parametrize("case", MISSING)
def test_a_task_tells_who_may_have_what_is_missing(host, case, tmp_path):
    spec, name, notes = MISSING[case]
    living = write_depot(tmp_path / "living", base_image(components={"d": "1"}), component("c"))
    record = host.task(f"{LINES['scan']} --depot {living} --depot {tmp_path}", spec)
    assert record["error"]["message"]["id"].endswith("." + name)
    told = [entry["STRUCTURE"]["com.tessel.orbi.std.localizable_message"]["id"].rpartition(".")[2] for entry in
            json.loads(record["exception"])["ERROR"]["com.tessel.orbi.std.errors.error"]["messages"]]
    assert told == [*notes, "DepotLeftOut", "DepotConnectError", "DepotFileUnreadable"]


def test_tasks_and_commands_share_what_was_brought(host, tmp_path):
    folder = pathlib.Path(write_depot(tmp_path / "depot", base_image(), component("c")))
    with served(folder) as url:
        assert host.run("depots --create", {"name": "d", "url": url})[0] == 0
        assert host.run("software --set", SPEC)[0] == 0
        (kept,) = (LIFECYCLE / "image/metadata").iterdir()
        (folder / "metadata.zip").unlink()
        assert host.result(f"{LINES['scan']} --depot {url}", SPEC)["status"] == "NON_COMPLIANT"
        kept.unlink()
        assert host.error(f"{LINES['scan']} --depot {url}", SPEC)[0] == "MetadataDownloadError"
