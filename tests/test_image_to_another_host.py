"""A host's image, extracted as a depot and served, makes a second sandboxed host the same."""

import pytest

from sandboxed_host import served
from second_host import SecondHost, installed_files

DAEMON = "com.tessel.ryx.kestrel_daemon."
IMAGE = "com.tessel.ryx.software.installed_image"
PACKAGES = "com.tessel.ryx.software.installed_paxs"
DATES = ("installed_at", "source")  # when it came, and from where
EXTENDED = {"base_image": {"version": "8.0.1-1"}, "components": {},
            "add_on": {"name": "norvik-addon", "version": "8.0.1-3"},
            "hardware_support": {"norvik-manager": {"package": "rack", "version": "1.2.0-1"}}}
WITH_SOLUTION = EXTENDED | {"solutions": {"tidemark-backup": {"version": "2.5.0-1", "components": []}}}
UPGRADED = WITH_SOLUTION | {"base_image": {"version": "8.0.2-1"},
                            "components": {"backup-agent": {"version": "2.4.0-1"}}}
FINAL = UPGRADED | {"components": {"backup-agent": {"version": "2.5.0-1"}}}


def do(client, service, operation, **fields):
    info = client.wait_for_task(client.call(service, operation + "$task", **fields))
    assert info["status"] == "SUCCEEDED", info
    return info["result"]


def state(client, root="/"):
    """Everything that a host tells of its image, but dates, and the installed files."""
    image = client.call(IMAGE, "get")
    listings = [client.call("com.tessel.ryx.hosts.software.components", "list")]
    listings += [client.call(PACKAGES, "list", filter={"orphan": orphan}) for orphan in (False, True)]
    details = [client.call("com.tessel.ryx.hosts.software.components", "get", component=name)
               for name in image["components"]]
    told = [sorted(({k: v for k, v in entry.items() if k not in DATES} for entry in listing), key=str)
            for listing in (*listings, details)]
    return {k: v for k, v in image.items() if k not in DATES}, told, installed_files(root)


@pytest.fixture
def second():
    with SecondHost() as host:
        yield host


def test_an_extract_makes_a_second_host_the_same(root, sample_depot, second, tmp_path):
    with served(sample_depot) as url:
        do(root, DAEMON + "software", "apply", depots=[url], software_spec=EXTENDED)
        do(root, DAEMON + "solutions", "apply", depots=[url], software_spec=WITH_SOLUTION)
        do(root, DAEMON + "software", "apply", depots=[url], software_spec=UPGRADED)
        do(root, DAEMON + "components", "apply", depots=[url], components={"backup-agent": "2.5.0-1"})
    extract = do(root, IMAGE, "extract_depot")
    first = state(root)
    assert [package["name"] for package in first[1][2]] == ["host-tools"] and len(first[2]) > 20

    other = second.start_daemon(tmp_path / "socket", "root", "kestrel")
    url = second.serve(extract["location"].removeprefix("file://"))
    do(other, DAEMON + "software", "apply", depots=[url], software_spec=FINAL)
    assert state(other, second.root) == first
    for client, depot in ((root, extract["location"]), (other, url)):
        scan = do(client, DAEMON + "software", "scan", depots=[depot], software_spec=FINAL)
        assert (scan["status"], scan["download_size"]) == ("COMPLIANT", 0)
    again = do(other, IMAGE, "extract_depot")
    assert (again["paxs"], again["size"]) == (extract["paxs"], extract["size"])
