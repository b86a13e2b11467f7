"""Going back, verifying and repairing: what the host has is known from its content, not from what it calls itself."""

import json
import os
import pathlib
import shutil

import pytest
from depot_maker import base_image, component, package, solution, write_depot
from sandboxed_host import LIFECYCLE
from tessel_lifecycle import paths

SCAN = "software --scan --software-spec DOCUMENT --depot {} --task-id ID"
APPLY = " software --apply --task-id ID --depot {} --software-spec DOCUMENT"
SPEC = {"base_image": {"version": "8.0-1"}}


def entries(value):
    """A map in plain JSON: name -> fields of the structure."""
    found = {}
    for entry in value:
        entry = entry["STRUCTURE"]["map-entry"]
        ((_, found[entry["key"]]),) = entry["value"]["STRUCTURE"].items()
    return found


def told(messages):
    """The last part of each message's identifier and the arguments."""
    found = [message["STRUCTURE"]["com.tessel.orbi.std.localizable_message"] for message in messages["OPTIONAL"] or ()]
    return [(message["id"].rpartition(".")[2], *message["args"]) for message in found]


def statuses(scan):
    """Of the host, the base image and each component."""
    ((_, base),) = scan["base_image"]["STRUCTURE"].items()
    return [scan["status"], base["status"], {n: c["status"] for n, c in entries(scan["components"]).items()}]


YES, NO = "COMPLIANT", "NON_COMPLIANT"
PAYLOAD, OTHER = {"etc/x": "x"}, {"etc/x": "other"}
OTHER_CONTENT = {  # what another depot has under the versions that are installed: files, descriptor, statuses
    "same": ((PAYLOAD, {}), (PAYLOAD, {}), [YES, YES, {"c": YES, "d": YES}]),
    "file": ((OTHER, {}), (PAYLOAD, {}), [NO, YES, {"c": NO, "d": YES}]),
    "descriptor": ((PAYLOAD, {"live_install": False}), (PAYLOAD, {}), [NO, YES, {"c": NO, "d": YES}]),
    "base image's own": ((PAYLOAD, {}), ({"etc/y": "y"}, {}), [NO, NO, {"c": YES, "d": YES}]),
}


def depot(folder, of_component, of_base):
    return write_depot(folder, base_image(components={"c": "1-1", "d": "1-1"}, paxs=[{"name": "b", "version": "1-1"}]),
                       component("c", paxs=["p"]), component("d", paxs=["q"]),
                       package("p", of_component[0], **of_component[1]),
                       package("q", {"etc/q": "q"}), package("b", {"b": of_base[0].get("etc/y", "")}, **of_base[1]))


@pytest.mark.parametrize("case", OTHER_CONTENT)
def test_the_same_version_with_other_content_is_another_package(host, tmp_path, case):
    of_component, of_base, expected = OTHER_CONTENT[case]
    host.result(APPLY.format(depot(tmp_path / "first", (PAYLOAD, {}), (PAYLOAD, {}))), SPEC)
    second = depot(tmp_path / "second", of_component, of_base)
    scan = host.result(SCAN.format(second), SPEC)
    changed = ["PaxContentDiffers"] if expected[0] == NO else []
    assert statuses(scan) == expected and [name for name, _ in told(scan["warnings"])] == changed
    result = host.result(APPLY.format(second), SPEC)
    assert result["changed"] == (expected[0] == NO) and result["downloaded"] == scan["download_size"]
    assert statuses(host.result(SCAN.format(second), SPEC)) == [YES, YES, {"c": YES, "d": YES}]


ROOT = LIFECYCLE / "image/current/root"


DAMAGE = {  # what is done to the file etc/q of package q: what is told of it
    "nothing": (lambda file: None, []),
    "written again": (lambda file: file.write_text("q"), []),
    "other content": (lambda file: file.write_text("Q"), [("FileChanged", "etc/q", "q(1-1)")]),
    "another mode": (lambda file: file.chmod(0o600), [("FileChanged", "etc/q", "q(1-1)")]),
    "another owner": (lambda file: os.chown(file, 1, 1), [("FileChanged", "etc/q", "q(1-1)")]),
    "lost": (lambda file: file.unlink(), [("FileLost", "etc/q", "q(1-1)")]),
    "lost with its folder": (lambda file: shutil.rmtree(file.parent),
                             [("FileLost", path, label) for path, label in (
                                 ("etc", "p(1-1)"), ("etc/x", "p(1-1)"), ("etc", "q(1-1)"), ("etc/q", "q(1-1)"))]),
    "link in its place": (lambda file: file.unlink() or file.symlink_to("x"), [("FileChanged", "etc/q", "q(1-1)")]),
    "nobody's file beside it": (lambda file: file.with_name("own").touch(), []),
}


@pytest.mark.parametrize("case", DAMAGE)
def test_files_that_were_changed_are_found_and_put_right(host, tmp_path, case):
    damage, expected = DAMAGE[case]
    location = depot(tmp_path / "depot", (PAYLOAD, {}), (PAYLOAD, {}))
    host.result(APPLY.format(location), SPEC)
    whole = {path: path.read_text() for path in ROOT.glob("*/*")}
    damage(ROOT / "etc/q")
    bad = {"p": "c", "q": "d"}
    components = {"c": YES, "d": YES} | {bad[label[0]]: NO for _, _, label in expected}
    for line in (SCAN.format(location), "software --verify --task-id ID"):
        result = host.result(line, SPEC if "scan" in line else None)
        assert sorted(told(result["warnings"])) == sorted(expected)
        assert statuses(result) == [NO if expected else YES, YES, components]
    result = host.result(APPLY.format(location), SPEC)
    assert result["changed"] == bool(expected) and sorted(told(result["warnings"])) == sorted(expected)
    result = host.result("software --verify --task-id ID")
    assert statuses(result) == [YES, YES, {"c": YES, "d": YES}]
    assert told(result["warnings"])[:1] == ([("SpareImageDamaged",)] if expected else [])
    if expected:
        assert {path: path.read_text() for path in ROOT.glob("*/*")} == whole


def test_verification_reads_what_a_scan_believes_and_tells_so_many_files(host, tmp_path):
    names = {f"f{number:02}": "" for number in range(25)}
    location = write_depot(tmp_path / "depot", base_image(components={"c": "1-1"}), component("c", paxs=["p"]),
                           package("p", {**names, "kept": "kept"}))
    host.result(APPLY.format(location), SPEC)
    status = (ROOT / "kept").stat()
    (ROOT / "kept").write_text("left")
    os.utime(ROOT / "kept", ns=(status.st_atime_ns, status.st_mtime_ns))
    assert told(host.result("software --verify --task-id ID")["warnings"]) == [("FileChanged", "kept", "p(1-1)")]
    for name in names:
        (ROOT / name).unlink()
    assert len(told(host.result("software --verify --task-id ID")["warnings"])) == 26
    scan = told(host.result(SCAN.format(location), SPEC)["warnings"])
    assert len(scan) == 21 and scan[0] == ("FileLost", "f00", "p(1-1)") and scan[-1][0] == "FilesMore"


def test_nothing_can_be_verified_where_nothing_is_installed(host):
    assert host.error("software --verify --task-id ID")[0] == "StatelessError"


NOWHERE = "/nowhere"
STAGE = APPLY.replace("apply", "stage")
ROLLBACK = "software --rollback --task-id ID"


def version(number, components=None):
    return {"base_image": {"version": f"8.0-{number}"}, "components": components or {}}


@pytest.fixture
def versions(host, tmp_path):
    """A depot with three base images that raise one component; the first and the second were applied."""
    location = write_depot(
        tmp_path / "versions", *(base_image(f"8.0-{n}", {"c": f"{n}-1", "d": "1-1"}) for n in (1, 2, 3)),
        *(component("c", f"{n}-1", paxs=[f"p {n}-1"]) for n in (1, 2, 3)), component("d", paxs=["q"]),
        *(package(f"p {n}-1", {"etc/x": f"{n}"}) for n in (1, 2, 3)), package("q", {"etc/q": "q"}))
    for number in (1, 2):
        host.result(APPLY.format(location), version(number))
    return location


def changes(result):
    """Of an apply: component -> previous and current version."""
    assert result["changed"] and result["downloaded"] == 0
    return {n: (c["previous"]["OPTIONAL"], c["current"]["OPTIONAL"]) for n, c in entries(result["components"]).items()}


BACK = {  # what the spare image can be asked for by, without a depot
    "the same document": version(1), "less is said": {"base_image": {"version": "8.0-1"}},
    "nothing is said": version(1) | {"solutions": {}, "add_on": None},
    "a version that the base image has": version(1, {"d": {"version": "1-1"}}),
}


@pytest.mark.parametrize("case", BACK)
@pytest.mark.parametrize("recorded", [True, False])
def test_the_spare_image_is_switched_to_without_a_depot(host, versions, case, recorded):
    if not recorded:
        for path in LIFECYCLE.glob("image/?/image.json"):
            path.write_text(json.dumps(json.loads(path.read_text()) | {"specification": None}))
    scan = host.result(SCAN.format(NOWHERE), BACK[case])
    assert statuses(scan) == [NO, NO, {"c": NO, "d": YES}]
    assert (scan["download_size"], scan["messages"]) == (0, [])
    assert host.result(STAGE.format(NOWHERE), BACK[case])["paxs"] == 0
    assert changes(host.result(APPLY.format(NOWHERE), BACK[case])) == {"c": ("2-1", "1-1")}
    assert (ROOT / "etc/x").read_text() == "1"
    for number, line in ((2, APPLY.format(NOWHERE)), (1, ROLLBACK), (2, ROLLBACK)):
        result = host.result(line, version(number) if "apply" in line else None)
        assert changes(result) == {"c": ("1-1", "2-1") if number == 2 else ("2-1", "1-1")}
        assert (ROOT / "etc/x").read_text() == str(number)
    assert told(host.result("software --verify --task-id ID")["warnings"]) == []


def test_what_only_depots_can_tell_is_asked_of_them(host, versions):
    newest = version(1, {"d": {}})
    assert host.error(APPLY.format(NOWHERE), newest)[0] == "DepotConnectError"
    assert changes(host.result(APPLY.format(versions), newest)) == {"c": ("2-1", "1-1")}
    host.result(APPLY.format(versions), version(3))
    assert host.error(APPLY.format(versions), version(2)) == ("ComponentDowngradeError", ["c(3-1 to 2-1)"])


def test_what_is_not_admitted_any_more_does_not_come_back(host, versions):
    preferences = pathlib.Path(paths.PREFERENCES)
    preferences.write_text("acceptance_level = PARTNER\n")
    try:
        for line in (APPLY.format(NOWHERE), ROLLBACK):
            assert host.error(line, version(1))[0] == "AcceptanceConfigError"
        assert host.result(SCAN.format(NOWHERE), version(1))["status"] == "INCOMPATIBLE"
    finally:
        preferences.unlink()
    assert changes(host.result(ROLLBACK)) == {"c": ("2-1", "1-1")}


def test_equal_specifications_with_other_content_are_told_apart(host, tmp_path):
    first, second = (depot(tmp_path / name, ({"etc/x": name}, {}), (PAYLOAD, {})) for name in ("first", "second"))
    for location in (first, second):
        host.result(APPLY.format(location), SPEC)
    assert not host.result(APPLY.format(second), SPEC)["changed"] and (ROOT / "etc/x").read_text() == "second"
    assert changes(host.result(APPLY.format(first), SPEC)) == {} and (ROOT / "etc/x").read_text() == "first"


SPARE = LIFECYCLE / "image/a"
BROKEN = {  # what is done to the spare image: what is told of it
    "file": (lambda: (SPARE / "root/etc/x").write_text("other"), ("FileChanged", "etc/x", "p(1-1)")),
    "file of both images": (lambda: (SPARE / "root/etc/q").write_text("other"), ("FileChanged", "etc/q", "q(1-1)")),
    "database": (lambda: (SPARE / "image.json").write_text("{"), ("DatabaseFormatError",)),
    "descriptor": (lambda: (SPARE / "descriptors/p.json").unlink(), ("DatabaseIOError",)),
}


@pytest.mark.parametrize("kept", [True, False])
@pytest.mark.parametrize("case", BROKEN)
def test_a_damaged_spare_image_is_not_switched_to_but_built_anew(host, tmp_path, versions, case, kept):
    damage, reason = BROKEN[case]
    damage()
    shutil.move(LIFECYCLE / "image/store", tmp_path / "store")
    for notes in (told(host.result("software --verify --task-id ID")["warnings"]), notes_of(host.task(ROLLBACK))):
        place = notes.index(("SpareImageDamaged",))
        assert notes[place + 1][:len(reason)] == reason
    assert host.error(ROLLBACK)[0] == "StatelessError" and (ROOT / "etc/x").read_text() == "2"
    assert host.error(APPLY.format(NOWHERE), version(1))[0] == "DepotConnectError"
    if case == "file" or kept and "file" in case:
        if kept:
            shutil.move(tmp_path / "store", LIFECYCLE / "image/store")
        result = host.result(ROLLBACK if kept else APPLY.format(versions), version(1))
        assert (result["downloaded"] == 0) == kept and (ROOT / "etc/x").read_text() == "1"
        assert changes(host.result(ROLLBACK)) == {"c": ("1-1", "2-1")}
        assert told(host.result("software --verify --task-id ID")["warnings"]) == []


@pytest.mark.parametrize("put", [lambda: SPARE.symlink_to("b"), lambda: SPARE.write_text("")])
def test_what_is_no_folder_is_not_taken_for_the_spare_image(host, versions, put):
    shutil.rmtree(SPARE)
    put()
    assert notes_of(host.task(ROLLBACK)) == [("NoSpareImage",)]
    host.result(APPLY.format(versions), version(3))
    assert (ROOT / "etc/x").read_text() == "3" and not SPARE.is_symlink()
    host.result(ROLLBACK)
    assert (ROOT / "etc/x").read_text() == "2"


def notes_of(record):
    """What a failed task tells beside its error's own message."""
    ((_, fields),) = json.loads(record["exception"])["ERROR"].items()
    return told({"OPTIONAL": fields["messages"]})


def test_there_is_no_way_back_where_nothing_ran_before(host, tmp_path):
    assert host.error(ROLLBACK)[0] == "StatelessError"
    host.result(APPLY.format(depot(tmp_path / "depot", (PAYLOAD, {}), (PAYLOAD, {}))), SPEC)
    assert notes_of(host.task(ROLLBACK)) == [("NoSpareImage",)]


def test_an_image_that_cannot_be_read_is_left_for_the_spare_one(host, versions):
    (LIFECYCLE / "image/b/image.json").write_text("{")
    host.result(ROLLBACK)
    assert (ROOT / "etc/x").read_text() == "1" and json.loads(host.run("ryx --get")[1])["version"] == "8.0-1"


REMOVE = "solutions --remove --task-id ID --name s"
WITH_SOLUTION = SPEC | {"solutions": {"s": {"version": "1-1"}}}


@pytest.fixture
def raising(tmp_path):
    """A depot with a solution that raises a component of the base image, and adds one."""
    return write_depot(
        tmp_path / "raising", base_image(components={"c": "1-1", "d": "1-1"}), solution("s", {"c": ">1-1", "e": "*"}),
        component("c", paxs=["p"]), component("c", "2-1", paxs=["p 2-1"]), component("d", paxs=["q"]),
        component("e", paxs=["r"]), component("x", paxs=["t"]), package("p", {"etc/x": "1"}),
        package("p 2-1", {"etc/x": "2"}), package("q", {"etc/q": "q"}), package("r", {"etc/r": "r"}),
        package("t", {"etc/t": "t"}))


MORE = "components --apply --task-id ID --depot {} --component x:1-1"
REMOVED = {  # what was done before a solution is removed, and whether the depot is there then
    "the spare image is without it": ([(APPLY, SPEC), (APPLY, WITH_SOLUTION)], False),
    "it came with the first image": ([(APPLY, WITH_SOLUTION)], True),
    "it came to the first image": ([(APPLY, WITH_SOLUTION), (MORE, None)], True),
    "both images have it": ([(APPLY, SPEC), (APPLY, WITH_SOLUTION), (MORE, None)], False),
}


@pytest.mark.parametrize("case", REMOVED)
def test_removing_a_solution_gives_back_what_it_raised(host, raising, case):
    before, is_there = REMOVED[case]
    for line, spec in before:
        host.result(line.format(raising), spec)
    if not is_there:
        shutil.rmtree(raising)
    result = entries(host.result(REMOVE)["components"])
    assert {n: (c["previous"]["OPTIONAL"], c["current"]["OPTIONAL"]) for n, c in result.items()} == {
        "c": ("2-1", "1-1"), "e": ("1-1", None)}
    assert (ROOT / "etc/x").read_text() == "1" and not (ROOT / "etc/r").exists()
    assert (ROOT / "etc/t").exists() == ((MORE, None) in before)


def test_what_cannot_be_given_back_is_told(host, raising):
    host.result(APPLY.format(raising), WITH_SOLUTION)
    shutil.rmtree(raising)
    record = host.task(REMOVE)
    assert record["error"]["message"]["id"].endswith(".PaxDownloadError") and "/p-1-1.pax" in str(record["error"])
    assert notes_of(record)[-1] == ("PaxNotKept",)
    (LIFECYCLE / "image/a/overridden.json").unlink()  # as in images of earlier days
    record = host.task(REMOVE)
    assert record["error"]["message"]["id"].endswith(".MissingComponentError")
    assert notes_of(record) == [("Detail", "c(1-1)"), ("PaxNotKept",)]


def test_what_nobody_named_goes_with_what_needed_it(host, tmp_path):
    depot = write_depot(
        tmp_path / "needy", base_image(), solution("s", {"agent": "*"}), component("agent", depends={"lib": "*"}),
        component("tool", depends={"plug": "*"}), component("tool", "2-1"), *map(component, ("lib", "plug", "x")))
    take = f"components --apply --task-id ID --depot {depot} --component "
    steps = [  # the line, and what is there then, by the source's first letter
        (APPLY.format(depot), {"agent": "S", "lib": "S"}),
        (take + "tool:1-1", {"agent": "S", "lib": "S", "plug": "C", "tool": "C"}),
        (REMOVE, {"plug": "C", "tool": "C"}),
        (take + "tool:2-1", {"tool": "C"}),
        (take + "tool:2-1 --component plug:1-1", {"plug": "C", "tool": "C"}),
        (take + "x:1-1", {"plug": "C", "tool": "C", "x": "C"})]
    for line, expected in steps:
        host.result(line, WITH_SOLUTION if "software" in line else None)
        names = [component["component"] for component in json.loads(host.run("component --list")[1])]
        found = {name: json.loads(host.run(f"component --get {name}")[1])["source"][0] for name in names}
        assert found == expected, line
