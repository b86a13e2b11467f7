"""Going back, verifying and repairing: what the host has is known from its content, not from what it calls itself."""

import pytest
from depot_maker import base_image, component, package, write_depot

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
