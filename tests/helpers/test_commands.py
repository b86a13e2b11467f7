"""What no client of the daemon can bring about: the commands themselves, and depots made for other hosts."""

import pathlib

import pytest
from depot_maker import base_image, component, package, write_depot
from tessel_lifecycle import paths

SCAN = "software --scan --software-spec DOCUMENT --depot {} --task-id ID"
APPLY = " software --apply --task-id ID --depot {} --software-spec DOCUMENT"


@pytest.mark.parametrize("document", ["", "null", "[]", "{", {"name": "a"}, {"name": 1, "url": "/"}])
def test_a_depot_has_to_be_described(host, document):
    exit_code, output, reason = host.run("depots --create", document)
    assert (exit_code, output, host.run("depots --list")[1]) == (81, "", "[]") and reason.count("\n") == 1


@pytest.mark.parametrize("line, code", [
    ("", 1), ("software", 1), ("software --list", 1), ("software --get x", 1), ("software_ryx --set 8.0.1-1 x", 84),
    ("components --set net-driver 1 2", 81)])
def test_lines_that_are_not_understood(host, line, code):
    exit_code, output, reason = host.run(line)
    assert (exit_code, output) == (code, "") and reason


def test_packages_for_other_hardware_are_refused(host, tmp_path):
    depot = write_depot(tmp_path / "depot", base_image(components={"c": "1-1"}), component("c", paxs=["p"]),
                        package("p", {}, hardware_platforms=[{"vendor": "Nobody", "model": "Nothing"}]))
    spec = {"base_image": {"version": "8.0-1"}}
    assert host.error(APPLY.format(depot), spec) == ("PaxHwPlatformError", [])
    assert host.result(SCAN.format(depot), spec)["status"] == "INCOMPATIBLE"


@pytest.fixture
def preferences():
    path = pathlib.Path(paths.PREFERENCES)
    yield path
    path.unlink()


@pytest.mark.parametrize("content", [b"acceptance_level = COMMUNITY\nnonsense\n", b"acceptance_level = \xff\n"])
def test_packages_are_refused_while_nobody_can_tell_what_is_admitted(host, tmp_path, preferences, content):
    depot = write_depot(tmp_path / "depot", base_image(components={"c": "1-1"}), component("c", paxs=["p"]),
                        package("p", {}))
    preferences.write_bytes(content)
    assert host.error(APPLY.format(depot), {"base_image": {"version": "8.0-1"}}) == ("AcceptanceGetError", [])
