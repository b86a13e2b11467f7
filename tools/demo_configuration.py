"""The demonstration's second half: the host's configuration."""

import json
import pathlib

from demo_screen import follow, say, step

CONFIGURATION = "com.tessel.ryx.kestrel_daemon.configuration"
MESSAGE_OF_THE_DAY = pathlib.Path("/etc/motd")

PROFILE = {
    "system": {"banner": {"motd": {"text": "This host is managed by kestreld.\n"}}},
    "time": {"ntp": {"servers": {"server": ["ntp1.example.com", "10.0.0.7"], "enabled": True}}},
    "kernel": {"sysctl": {"settings": [{"name": "vm.swappiness", "value": "10"}]}},
    "logging": {"remote": {"targets": [{"name": "main", "host": "logs.example.com", "port": 514, "protocol": "tcp"}]}},
}
WRONG = PROFILE | {
    "time": {"ntp": {"servers": {"server": [], "enabled": "yes"}}},
    "network": {"vlan": {"ids": {"first": 1}}},
}
FILES = ("/etc/motd", "/etc/systemd/timesyncd.conf.d/50-kestreld.conf", "/etc/sysctl.d/60-kestreld.conf",
         "/etc/rsyslog.d/50-kestreld.conf")


def document(profile):
    return json.dumps({"metadata": {"schema_version": "1.0"}, "profile": profile})


def show_messages(messages):
    for message in messages:
        say(message["default_message"])


def drifted(client):
    """The settings that are not as the profile wants them."""
    result = follow(client, "compare", CONFIGURATION, "check_compliance$task", document=document(PROFILE))
    return ["/".join((setting["component"], setting["group"], setting["key"]))
            for host in result["compliance"] for setting in host["settings"] if setting["status"] != "COMPLIANT"]


def configure(client):
    """Takes a document through everything that can be done with it; tells whether the host became as it asks."""
    step("Check a configuration document, which has faults")
    for error in follow(client, "check", CONFIGURATION, "validate$task", document=document(WRONG))["errors"]:
        say(f"{error['path']}: {error['messages'][0]['default_message']}")

    step("See what the right one would change")
    checked = follow(client, "check", CONFIGURATION, "check_apply$task", document=document(PROFILE))
    for host in checked["impacts"]:
        show_messages(impact["message"] for impact in host["impacts"])

    step("Apply it")
    show_messages(follow(client, "apply", CONFIGURATION, "apply$task", spec_id=checked["spec_id"])["messages"])
    for path in FILES:
        lines = [line for line in pathlib.Path(path).read_text().splitlines() if line and not line.startswith("#")]
        say(f"{path}: {lines[-1]}")
    compliant = not drifted(client)
    say("The host is compliant" if compliant else "The host is not compliant")

    step("Change a file behind the daemon's back")
    MESSAGE_OF_THE_DAY.write_text("Who was here?\n")
    drift = drifted(client)
    say(f"No longer as wanted: {', '.join(drift) or 'nothing'}")
    return compliant and drift == ["system/banner/motd"]
