"""Going back, verifying and repairing: what the host has is known from its content, not from what it calls itself."""

import os
import shutil

import pytest
from depot_maker import base_image, component, package, write_depot
from sandboxed_host import LIFECYCLE

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
    "service": ((PAYLOAD, {"services": ["x.service"]}), (PAYLOAD, {}), [NO, YES, {"c": NO, "d": YES}]),
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
    assert statuses(result) == [YES, YES, {"c": YES, "d": YES}] and told(result["warnings"]) == []
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
