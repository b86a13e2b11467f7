"""The installed commands on a throw-away host, as the daemon runs them."""

import json
import shutil

import pytest
from depot_maker import base_image, component, package, write_depot
from metamodel_check import check
from sandboxed_host import LIFECYCLE

TEN = "com.tessel.ryx."
SCAN = "software --scan --software-spec DOCUMENT --depot {} --task-id ID"
STAGE = " software --stage --task-id ID --depot {} --software-spec DOCUMENT"
APPLY = " software --apply --task-id ID --depot {} --software-spec DOCUMENT"
FULL = {"base_image": {"version": "8.0.1-1"}, "components": {"trace-agent": {}},
        "add_on": {"name": "norvik-addon", "version": "8.0.1-3"},
        "hardware_support": {"norvik-manager": {"package": "rack", "version": "1.2.0-1"}}}
SOLUTION = {"tidemark-backup": {"version": "2.5.0-1", "components": []}}


def statuses(fields):
    parts = {entry["STRUCTURE"]["map-entry"]["key"]: entry["STRUCTURE"]["map-entry"]["value"] for entry in fields}
    return {key: list(value["STRUCTURE"].values())[0]["status"] for key, value in parts.items()}


def create(host, name, url):
    return host.run("depots --create", {"name": name, "url": url})[0]


def test_depots_are_registered_listed_and_forgotten(host, sample_depot, tmp_path):
    assert host.run("depots --list ") == (0, "[]", "")
    assert create(host, "main", sample_depot) == 0
    assert host.run("depots --create", {"name": "b", "url": f"file://{sample_depot}", "description": "ü"})[0] == 0
    assert create(host, "main", sample_depot) == 80
    listed = json.loads(host.run("depots --list ")[1])
    check(listed, f"list<{TEN}host_settings.depots.depot_spec>", plain=False)
    assert [(d["name"], d["vendor"], d.get("description")) for d in listed] == [
        ("main", "Tessel Systems", None), ("b", "Tessel Systems", "ü")]
    assert host.run("depots --delete main")[0] == 0 and host.run("depots --delete main")[0] == 82
    assert [d["name"] for d in json.loads(host.run("depots --list")[1])] == ["b"]


@pytest.mark.parametrize("document, code", [
    ("", 81), ("null", 81), ("[]", 81), ("{", 81), ({"name": "a"}, 81), ({"name": 1, "url": "/"}, 81),
    ({"name": "", "url": "/"}, 81), ({"name": "a b", "url": "/"}, 81), ({"name": "--a", "url": "/"}, 81),
    ({"name": "a;b", "url": "/"}, 81), ({"name": "a\n", "url": "/"}, 81), ({"name": "a", "url": "/nowhere"}, 83),
    ({"name": "a", "url": "http://127.0.0.1:9/"}, 83), ({"name": "a", "url": "gopher://x"}, 83),
    ({"name": "a", "url": "/etc"}, 83)])
def test_depots_that_cannot_be_registered(host, document, code):
    exit_code, output, reason = host.run("depots --create", document)
    assert (exit_code, output, host.run("depots --list")[1]) == (code, "", "[]") and reason.count("\n") == 1


def test_the_desired_specification(host, sample_depot):
    for line in ("software --get", "software_ryx --get", "components --get net-driver", "components --del net-driver",
                 "components --set net-driver 1.2.0-1", "software_ryx --set 8.0.1-1"):
        assert host.run(line)[0] == 82, line
    create(host, "main", sample_depot)
    assert host.run("software_ryx --set 8.0.1-1") == (0, "", "")
    check(json.loads(host.run("software --get")[1]), TEN + "host_settings.software_spec", plain=False)
    assert host.run("software --set", FULL) == (0, "", "")
    assert json.loads(host.run("software --get")[1]) == FULL
    for line, answer in (("software_ryx --set 8.0.2-1", (0, "")), ("software_ryx --get ", (0, "8.0.2-1")),
                         ("software_ryx --set 9", (82, "")), ("software_ryx --set x", (84, "")),
                         ("software_ryx --set 8.0.1-1 x", (84, "")), ("components --set net-driver 1.3.0-1", (0, "")),
                         ("components --get net-driver", (0, "1.3.0-1")), ("components --get trace-agent", (0, "")),
                         ("components --set net-driver 9", (82, "")), ("components --set net-driver a;b", (81, "")),
                         ("components --set net-driver 1 2", (81, "")), ("components --set none 1", (82, "")),
                         ("components --del net-driver", (0, "")), ("components --del net-driver", (82, "")),
                         ("components --get net-driver", (82, "")), ("software --get x", (1, "")),
                         ("software", (1, "")), ("software --list", (1, "")), ("", (1, ""))):
        assert host.run(line)[:2] == answer, line
    assert json.loads(host.run("software --get")[1]) == FULL | {"base_image": {"version": "8.0.2-1"}}


@pytest.mark.parametrize("change, code", [
    ({"base_image": {"version": "9"}}, 82), ({"components": {"none": {"version": "1"}}}, 82),
    ({"components": {"none": {}}}, 82), ({"add_on": {"name": "none", "version": "1"}}, 82),
    ({"solutions": {"none": {"version": "1", "components": []}}}, 82),
    ({"hardware_support": {"none": {"package": "p", "version": "1"}}}, 82), ({"base_image": None}, 1),
    ({"components": []}, 1), ({"components": {"a": "1"}}, 1)])
def test_specifications_that_are_not_taken(host, sample_depot, change, code):
    create(host, "main", sample_depot)
    assert host.run("software --set", FULL)[0] == 0
    assert host.run("software --set", FULL | change)[0] == code
    assert json.loads(host.run("software --get")[1]) == FULL


def test_a_dead_depot_is_told_apart_from_a_missing_part(host, sample_depot, tmp_path):
    shutil.copytree(sample_depot, tmp_path / "copy")
    create(host, "main", sample_depot)
    create(host, "copy", str(tmp_path / "copy"))
    shutil.rmtree(tmp_path / "copy")
    assert host.run("software --set", FULL)[0] == 0
    assert host.run("software_ryx --set 9")[0] == 83
    assert [d["reachable"] for d in json.loads(host.run("depots --list")[1])] == [True, False]


def test_a_host_without_an_image_reports_nothing(host):
    for line, output in (("ryx --get ", "null"), ("component --get x", "null"), ("component --list ", "[]"),
                         ("PAX --list-all", "[]"), ("PAX --list-orphan", "[]")):
        assert host.run(line) == (0, output, "")
    check(json.loads(host.run("software --getsoftwareinfo")[1]), TEN + "software.installed_image.info", plain=False)


def test_the_main_job(host, sample_depot):
    scan = host.result(SCAN.format(sample_depot), FULL)
    assert scan["status"] == "NON_COMPLIANT" and scan["download_size"] > 1000000
    staged = host.result(STAGE.format(sample_depot), FULL)
    assert staged["downloaded"] == scan["download_size"]
    assert len(list((LIFECYCLE / "image/stage").iterdir())) == staged["paxs"]
    applied = host.result(APPLY.format(sample_depot), FULL)
    assert (applied["changed"], applied["downloaded"]) == (True, 0)
    assert host.result(APPLY.format(sample_depot), FULL)["changed"] is False
    assert host.result(SCAN.format(sample_depot), FULL)["status"] == "COMPLIANT"
    for line, kind in (("software --getsoftwareinfo", "software.installed_image.info"),
                       ("ryx --get ", "hosts.software.ryx.info"),
                       ("component --get fabric-tuning", "hosts.software.components.info")):
        check(json.loads(host.run(line)[1]), TEN + kind, plain=False)
    check(json.loads(host.run("component --list ")[1]), f"list<{TEN}hosts.software.components.summary>", plain=False)
    packages = json.loads(host.run("PAX --list-all")[1])
    check(packages, f"list<{TEN}software.installed_paxs.pax_info>", plain=False)
    orphans = json.loads(host.run("PAX --list-orphan")[1])
    assert [p["name"] for p in orphans] == ["host-tools"] and [p for p in packages if "component" not in p] == orphans
    sources = {c["component"]: json.loads(host.run(f"component --get {c['component']}")[1])["source"]
               for c in json.loads(host.run("component --list")[1])}
    assert sources == {"ryx-core": "BASE_IMAGE", "net-driver": "BASE_IMAGE", "storage-driver": "ADD_ON",
                       "fabric-tuning": "ADD_ON", "chassis-monitor": "HARDWARE_SUPPORT", "trace-agent": "COMPONENT"}


def test_components_and_solutions(host, sample_depot):
    spec = {"base_image": {"version": "8.0.1-1"}, "components": {}}
    line = f"solutions --apply --task-id ID --depot {sample_depot} --software-spec DOCUMENT"
    assert host.error(line, spec | {"solutions": SOLUTION}) == ("StatelessError", [])
    host.result(APPLY.format(sample_depot), spec)
    host.result(line.replace("--apply", "--stage"), spec | {"solutions": SOLUTION})
    assert host.result(line, spec | {"solutions": SOLUTION})["downloaded"] == 0
    assert json.loads(host.run("component --get backup-agent")[1])["version"] == "2.4.0-1"
    assert host.error(f"components --apply --task-id ID --depot {sample_depot} --component trace-agent:0.9.0-1") == (
        "IncompatibleSolutionComponentError", ["backup-filter", "tidemark-backup", "2.4.0-1"])
    host.result(f"components --apply --task-id ID --depot {sample_depot} --component storage-driver:2.1.0-1")
    assert host.error("solutions --remove --task-id ID --name none")[0] == "SolutionNotFound"
    host.result("solutions --remove --task-id ID --name tidemark-backup")
    assert host.run("component --get backup-agent")[1] == "null"
    upgrade = {"base_image": {"version": "8.0.2-1"}, "components": {}}
    assert host.error(APPLY.format(sample_depot), upgrade)[0] == "ComponentDowngradeError"
    scan = host.result(SCAN.format(sample_depot), upgrade)
    assert scan["status"] == "INCOMPATIBLE" and len(scan["messages"]) == 1
    upgrade["components"] = {"storage-driver": {"version": "2.1.0-1"}}
    assert statuses(host.result(SCAN.format(sample_depot), upgrade)["components"]) == {
        "ryx-core": "NON_COMPLIANT", "net-driver": "NON_COMPLIANT", "storage-driver": "COMPLIANT"}
    host.result(APPLY.format(sample_depot), upgrade)
    assert json.loads(host.run("ryx --get")[1])["version"] == "8.0.2-1"


def test_what_has_changed_is_not_extracted(host, sample_depot):
    host.result(APPLY.format(sample_depot), FULL)
    (LIFECYCLE / "image/a/root/etc/ryx/motd").write_text("edited")
    assert host.error("depots --extract --task-id ID") == ("PaxChecksumError", ["ryx-base(8.0.1-1)"])
    (LIFECYCLE / "image/a/root/etc/ryx/motd").unlink()
    assert host.error("depots --extract --task-id ID") == ("PaxRecreateError", ["ryx-base(8.0.1-1)"])
    assert list((LIFECYCLE / "extract").iterdir()) == []


def test_an_unreadable_image_is_told(host, sample_depot):
    host.result(APPLY.format(sample_depot), FULL)
    (LIFECYCLE / "image/a/image.json").write_text("{}")
    assert host.run("software --getsoftwareinfo")[0] == 145
    assert host.error(APPLY.format(sample_depot), FULL) == ("DatabaseFormatError", [])
    scan = host.result(SCAN.format(sample_depot), FULL)
    assert scan["status"] == "UNAVAILABLE" and set(statuses(scan["components"]).values()) == {"UNAVAILABLE"}


@pytest.mark.parametrize("preferences, name", [
    ("acceptance_level = partner\n", "AcceptanceConfigError"), ("acceptance_level = x\n", "AcceptanceGetError"),
    ("; acceptance_level = x\nlibdir = /lib\nacceptance_level = community\n", None)])
def test_the_host_decides_what_it_accepts(host, sample_depot, tmp_path, preferences, name):
    from tessel_lifecycle import paths
    with open(paths.PREFERENCES, "w") as file:
        file.write(preferences)
    try:
        if name:
            assert host.error(APPLY.format(sample_depot), FULL) == (name, [])
        else:
            host.result(APPLY.format(sample_depot), FULL)
    finally:
        open(paths.PREFERENCES, "w").close()


def test_packages_for_other_hardware_are_refused(host, tmp_path):
    depot = write_depot(tmp_path / "depot", base_image(components={"c": "1-1"}), component("c", paxs=["p"]),
                        package("p", {}, hardware_platforms=[{"vendor": "Nobody", "model": "Nothing"}]))
    spec = {"base_image": {"version": "8.0-1"}}
    assert host.error(APPLY.format(depot), spec) == ("PaxHwPlatformError", [])
    assert host.result(SCAN.format(depot), spec)["status"] == "INCOMPATIBLE"


def test_a_package_that_is_damaged_on_the_way_is_not_installed(host, tmp_path):
    depot = write_depot(tmp_path / "depot", base_image(components={"c": "1-1"}), component("c", paxs=["p"]),
                        package("p", {"etc/x": "x"}))
    path = tmp_path / "depot/paxs/p-1-1.pax"
    path.write_bytes(path.read_bytes()[::-1])
    assert host.error(APPLY.format(depot), {"base_image": {"version": "8.0-1"}}) == ("PaxSigDigestError", ["p(1-1)"])
    path.unlink()
    assert host.error(APPLY.format(depot), {"base_image": {"version": "8.0-1"}}) == ("PaxDownloadError", [str(path)])
    assert host.run("ryx --get")[1] == "null"
