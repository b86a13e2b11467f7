"""What the host whose power is cut is busy with. Each operation tells at once what it was promised: a task that was
started, one that has ended, a desired state that was taken."""

import json
import subprocess
import uuid

from orbi_client import Client

DAEMON = "com.tessel.ryx.kestrel_daemon."
CONFIGURATION = DAEMON + "configuration"
SETTINGS = "com.tessel.ryx.host_settings."
DEPOT = "file:///srv/depot"
HELPER = "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py"
PATIENCE = 300  # seconds for a task; the emulated processor is slow


def image(base, solutions=None, **components):
    wanted = {name.replace("_", "-"): {"version": version} for name, version in components.items()}
    return {"base_image": {"version": base}, "components": wanted} | ({"solutions": solutions} if solutions else {})


# `first`, then `old` were applied before an operation begins. All of the others' changes but those to `new` concern
# services, of which `first` has none.
IMAGES = {
    "first": image("8.0.1-1"),
    "old": image("8.0.1-1", storage_driver="2.1.0-1", status_page="1.0.0-1"),
    "new": image("8.0.2-1", storage_driver="2.1.0-1", status_page="1.0.0-1",
                 solutions={"tidemark-backup": {"version": "2.5.0-1", "components": []}}),
    "served": image("8.0.1-1", storage_driver="2.1.0-1", status_page="1.1.0-1", forwarding_policy="1.0.0-1"),
}


def document(mark, number):
    return json.dumps({"metadata": {"schema_version": "1.0"}, "profile": {
        "system": {"banner": {"motd": {"text": f"The {mark} text.\n"}, "issue": {"text": f"The {mark} host.\n"}}},
        "kernel": {"sysctl": {"settings": [{"name": "net.ipv4.ip_default_ttl", "value": str(number)}]}},
        "logging": {"remote": {"targets": [{"name": "main", "host": "127.0.0.1", "port": number, "protocol": "udp"}]}},
    }})


DOCUMENTS = {"old": document("old", 61), "new": document("new", 62)}


def client():
    return Client(user="root", password="kestrel", timeout=PATIENCE)


def run_task(tell, service, operation, **fields):
    """Starts a task and waits for its end; returns its information."""
    api = client()
    task = api.call(service, operation, **fields)
    tell(started=task)
    info = api.wait_for_task(task, timeout=PATIENCE)
    tell(ended={task: info})
    return info


def must_succeed(info):
    if info["status"] != "SUCCEEDED":
        raise RuntimeError(f"a task failed: {info}")
    return info.get("result")


def change_software(tell, operation, image):
    return run_task(tell, DAEMON + "software", operation, depots=[DEPOT], software_spec=IMAGES[image])


def check_configuration(tell, mark="new"):
    """Returns what the configuration can be applied by."""
    return must_succeed(run_task(tell, CONFIGURATION, "check_apply$task", document=DOCUMENTS[mark]))["spec_id"]


def apply_configuration(tell, checked):
    must_succeed(run_task(tell, CONFIGURATION, "apply$task", spec_id=checked))


def configure(tell, mark):
    apply_configuration(tell, check_configuration(tell, mark))


def stage(tell):
    must_succeed(change_software(tell, "stage$task", "new"))


def apply(tell):
    must_succeed(change_software(tell, "apply$task", "new"))


def activate(tell):
    must_succeed(change_software(tell, "apply$task", "served"))


def apply_both(tell):
    must_succeed(run_task(tell, "com.tessel.ryx.hosts.settings", "set$task", depots=[DEPOT], image=IMAGES["new"],
                          configuration=json.loads(DOCUMENTS["new"])))


def roll_back(tell):
    """To the image before, `first`; on the host itself, where no daemon has to be asked."""
    task = str(uuid.uuid4())
    subprocess.run([HELPER, "software", "--rollback", "--task-id", task], check=True, stdin=subprocess.DEVNULL)
    tell(ended={task: client().call("com.tessel.cis.tasks", "get", task=task)})


def change_tasks(tell):
    """Many short tasks, of the daemon's and of its helpers, and desired states in between."""
    for number in range(2):
        spec = IMAGES["new" if number % 2 else "old"]
        tell(wants={"software": spec})
        client().call(SETTINGS + "software", "set", spec=spec)
        tell(has={"software": spec})
        must_succeed(run_task(tell, CONFIGURATION, "validate$task", document=DOCUMENTS["new"]))
        client().call(SETTINGS + "depots", "create", spec={"name": f"depot-{number}", "url": DEPOT})
        tell(has={"depot": f"depot-{number}"})
        must_succeed(change_software(tell, "scan$task", "new"))


OPERATIONS = {"stage": stage, "apply": apply, "activation": activate, "rollback": roll_back,
              "configuration": apply_configuration, "both": apply_both, "tasks": change_tasks}


PREPARATIONS = {"configuration": check_configuration}


def perform(tell, kind):
    prepared = [PREPARATIONS[kind](tell)] if kind in PREPARATIONS else []
    tell(begins=kind)
    OPERATIONS[kind](tell, *prepared)
    return {}


def prepare(tell, _):
    """A fresh disk becomes a host with a past: two images, a configuration, a registered depot."""
    for command in ("dpkg --install /root/kestreld.deb", "echo root:kestrel | chpasswd",
                    "systemctl --quiet enable --now kestreld"):
        subprocess.run(["sh", "-c", command], check=True, stdout=subprocess.DEVNULL)
    client().call(SETTINGS + "depots", "create", spec={"name": "sample", "url": DEPOT})
    for image in ("first", "old"):
        must_succeed(change_software(tell, "apply$task", image))
    configure(tell, "old")
    subprocess.Popen(["systemctl", "poweroff"])
    return {}
