"""Runs inside a booted host: takes its software and its configuration through a whole cycle each, and looks at what
became of them."""

import json
import pathlib
import subprocess
import sys

REPOSITORY = pathlib.Path("/repository")
sys.path.insert(0, str(REPOSITORY / "tools"))

from orbi_client import Client

DAEMON = "com.tessel.ryx.kestrel_daemon."
SPECIFICATION = {"base_image": {"version": "8.0.1-1"}, "components": {"storage-driver": {"version": "2.1.0-1"}}}
PROFILE = {
    "system": {"banner": {"motd": {"text": "This host is managed by kestreld.\n"}}},
    "time": {"ntp": {"servers": {"server": ["ntp1.example.com"], "enabled": True}}},
    # A parameter that takes a capability; of a container's parameters only those of the network can be set.
    "kernel": {"sysctl": {"settings": [{"name": "net.ipv4.ip_forward", "value": "1"}]}},
    "logging": {"remote": {"targets": [{"name": "main", "host": "127.0.0.1", "port": 514, "protocol": "tcp"}]}},
}


def document(**profile):
    return {"metadata": {"schema_version": "1.0"}, "profile": profile}


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


def main_process(unit):
    return output_of("systemctl", "show", "--property=MainPID", "--value", unit)


def run(client, service, operation, **fields):
    info = client.wait_for_task(client.call(service, operation, **fields))
    assert info["status"] == "SUCCEEDED", f"{operation}: {info}"
    return info.get("result")


def change_software(client, depot):
    image = {"depots": [depot], "software_spec": SPECIFICATION}
    client.call("com.tessel.ryx.host_settings.depots", "create", spec={"name": "sample", "url": depot})
    client.call("com.tessel.ryx.host_settings.software", "set", spec=SPECIFICATION)
    assert run(client, DAEMON + "software", "scan$task", **image)["status"] == "NON_COMPLIANT"
    run(client, DAEMON + "software", "stage$task", **image)
    run(client, DAEMON + "software", "apply$task", **image)
    assert run(client, DAEMON + "software", "scan$task", **image)["status"] == "COMPLIANT"
    run(client, "com.tessel.ryx.software.installed_image", "extract_depot$task")


def change_configuration(client):
    configuration, logger = DAEMON + "configuration", main_process("rsyslog.service")
    wanted = json.dumps(document(**PROFILE))
    assert run(client, configuration, "validate$task", document=wanted)["errors"] == []
    checked = run(client, configuration, "check_apply$task", document=wanted)
    run(client, configuration, "apply$task", spec_id=checked["spec_id"])
    compliance = run(client, configuration, "check_compliance$task", document=wanted)["compliance"]
    assert {setting["status"] for host in compliance for setting in host["settings"]} == {"COMPLIANT"}
    assert pathlib.Path("/etc/motd").read_text() == PROFILE["system"]["banner"]["motd"]["text"]
    assert pathlib.Path("/proc/sys/net/ipv4/ip_forward").read_text() == "1\n"
    assert main_process("rsyslog.service") != logger, "the log service was not restarted"
    assert "ntp1.example.com" in pathlib.Path("/etc/systemd/timesyncd.conf.d/50-kestreld.conf").read_text()
    client.call("com.tessel.ryx.kestrel_daemon.configuration", "export")


def change_both(client, depot):
    """The lifecycle helper calls the daemon with tickets."""
    wanted = document(system={"banner": {"motd": {"text": "Both at once.\n"}}})
    run(client, "com.tessel.ryx.hosts.settings", "set$task", depots=[depot], image=SPECIFICATION, configuration=wanted)
    assert pathlib.Path("/etc/motd").read_text() == "Both at once.\n"


def main():
    subprocess.run(["chpasswd"], input="root:kestrel", text=True, check=True)
    subprocess.run([REPOSITORY / "helpers/build-depot", REPOSITORY / "helpers/sample-depot", "/srv/depot"], check=True)
    with subprocess.Popen([REPOSITORY / "tools/serve-depot", "/srv/depot"], stdout=subprocess.PIPE, text=True) as http:
        depot = http.stdout.readline().strip()
        client = Client(user="root", password="kestrel")
        change_software(client, depot)
        change_configuration(client)
        change_both(client, depot)
        http.terminate()
    print("all of it succeeded")


main()
