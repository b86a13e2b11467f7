"""What the host whose power was cut looks like when it is up again."""

import contextlib
import hashlib
import json
import os
import pathlib
import re
import sqlite3
import stat
import subprocess
import time
import urllib.request

import guest_operations
from guest_operations import CONFIGURATION, DOCUMENTS, SETTINGS, client, must_succeed

LIFECYCLE = pathlib.Path("/var/tessel/lifecycle")
IMAGE = LIFECYCLE / "image"
STORE = "/var/tessel/configstore/store.db"
ENDED = ("SUCCEEDED", "FAILED")
# Of each key of the configuration, the file that it makes.
CONFIGURED = {"system/banner/motd": "/etc/motd", "system/banner/issue": "/etc/issue",
              "kernel/sysctl/settings": "/etc/sysctl.d/60-kestreld.conf",
              "logging/remote/targets": "/etc/rsyslog.d/50-kestreld.conf"}
# What operations change when they succeed.
EFFECTS = {"kestrel_daemon.software.apply$task": ["image"], "kestrel_daemon.software.rollback$task": ["image"],
           "kestrel_daemon.configuration.apply$task": ["configuration"],
           "hosts.settings.set$task": ["image", "configuration"]}


def remember(tell, _):
    """What the next look is compared with: {"image": …, "files": …, "keys": …, "tasks": …}."""
    return {"image": outline(), "files": configured_files(), "keys": exported_keys(),
            "tasks": client().call("com.tessel.cis.tasks", "list")}


def look(tell, expected):
    """Compares the host with what it was and what it was to become: {"old": …, "new": …} as `remember` tells them,
    `tasks` as clients saw them last, `has` and `wants` of desired states. Then has everything applied.

    Returns {"faults": [text…], "image": "old" or "new", …}.
    """
    told = {"faults": []}
    for check in (check_system, check_image, check_activation, check_configuration, check_tasks, check_desired,
                  check_next_apply):
        try:
            told["faults"] += [f"{check.__name__}: {fault}" for fault in check(expected, told)]
        except Exception as error:
            told["faults"].append(f"{check.__name__}: {type(error).__name__}: {error}")
    return told


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False).stdout


def wait_until(condition, seconds=150):
    """Returns whether it came true; services have up to 90 seconds to come up."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.2)
    return True


def check_system(expected, told):
    if not wait_until(lambda: not (IMAGE / "activation.json").exists()):
        yield "the image still waits for being found well"
    failed = output_of("systemctl", "list-units", "--plain", "--no-legend", "--state=failed")
    if failed:
        yield f"failed units: {failed}"
    kernel = output_of("dmesg")
    told["recovered"] = "recovery complete" in kernel
    if re.search("EXT4-fs (error|warning)", kernel):
        yield "the file system has faults"
    if not wait_until(lambda: output_of("systemctl", "is-active", "kestreld") == "active\n"):
        yield "the daemon does not run"


def document_of(*parts):
    return json.loads(IMAGE.joinpath(*parts).read_text())


def outline(bank="current"):
    """What is installed: what a bank's database says."""
    database = document_of(bank, "image.json")
    return {"base_image": database["base_image"]["version"],
            "solutions": sorted(entry["document"]["name"] for entry in database["solutions"]),
            "paxs": sorted([pax["name"], pax["version"]] for pax in database["paxs"])}


def faults_of_bank(bank):
    """Each file of a bank against the descriptors of its packages, and against there being others."""
    listed, root = {}, IMAGE / bank / "root"
    descriptors = {path.stem: json.loads(path.read_text()) for path in (IMAGE / bank / "descriptors").iterdir()}
    if sorted([name, d["version"]] for name, d in descriptors.items()) != outline(bank)["paxs"]:
        yield "the descriptors are not those of the database"
    for descriptor in descriptors.values():
        for file in descriptor["files"]:
            listed[file["path"]] = file
            if fault := fault_of_file(root / file["path"], file):
                yield f"{descriptor['name']} {file['path']}: {fault}"
    above = {str(parent) for path in listed for parent in pathlib.PurePath(path).parents}
    for folder, folders, names in os.walk(root):
        for path in (os.path.relpath(os.path.join(folder, name), root) for name in folders + names):
            if path not in listed and path not in above:
                yield f"{path} is of no package"


def fault_of_file(path, file):
    try:
        status = os.lstat(path)
    except FileNotFoundError:
        return "is not there"
    if file["type"] == "link":
        return None if stat.S_ISLNK(status.st_mode) and os.readlink(path) == file["target"] else "is another link"
    if stat.S_IMODE(status.st_mode) != file["mode"]:
        return f"has the mode {status.st_mode:o}"
    if file["type"] == "directory":
        return None if stat.S_ISDIR(status.st_mode) else "is no directory"
    if status.st_size != file["size"]:
        return f"has {status.st_size} bytes, not {file['size']}"
    return None if hashlib.sha256(path.read_bytes()).hexdigest() == file["sha256"] else "has another content"


def which(value, expected, part):
    """Whether a value is the old one or the new one; else None. Both may be the same: `old` then."""
    return next((side for side in ("old", "new") if value == expected[side][part]), None)


def check_image(expected, told):
    told["image"] = which(outline(), expected, "image")
    if not told["image"]:
        yield f"a mixture: {outline()}"
    yield from faults_of_bank("current")
    current = os.readlink(IMAGE / "current")
    spare = "b" if current == "a" else "a"
    told["spare"] = ("none" if not (IMAGE / spare).exists() else "unfinished"
                     if not (IMAGE / spare / "image.json").exists() else "damaged" if list(faults_of_bank(spare))
                     else "whole")


def page():
    """What the status page answers last: its version. None when nobody answers."""
    with contextlib.suppress(OSError), urllib.request.urlopen("http://127.0.0.1:8642/", timeout=10) as answer:
        return answer.read().decode().split()[-1]


def check_activation(expected, told):
    """The running image's files are linked where systemd looks, nothing else of an image is, and its services run."""
    root = IMAGE / "current/root"
    if os.path.realpath("/opt/tessel") != os.path.realpath(root):
        yield f"/opt/tessel leads to {os.path.realpath('/opt/tessel')}"
    wanted, linked = set(), set()
    for folder in ("systemd/system", "sysctl.d", "modules-load.d", "tmpfiles.d", "udev/rules.d"):
        wanted |= {f"/run/{folder}/{path.name}" for path in (root / "lib" / folder).glob("*") if path.is_file()}
        linked |= {str(path) for path in pathlib.Path("/run", folder).glob("*")
                   if path.is_symlink() and os.readlink(path).startswith("/opt/tessel/")}
    for path in wanted ^ linked:
        yield f"{path} {'is not linked' if path in wanted else 'is of no package'}"
    version = dict(outline()["paxs"]).get("status-page", "").removesuffix("-1") or None
    if not wait_until(lambda: page() == version):
        yield f"the status page is {page()}, that of the image {version}"
        yield output_of("journalctl", "--no-pager", "-u", "status-page")
    for descriptor in (IMAGE / "current/descriptors").iterdir():
        for service in json.loads(descriptor.read_text()).get("services") or ():
            if output_of("systemctl", "is-active", service) != "active\n":
                yield f"{service} does not run: {output_of('systemctl', 'status', service)}"


def configured_files():
    found = {}
    for key, path in CONFIGURED.items():
        with contextlib.suppress(FileNotFoundError):
            found[key] = pathlib.Path(path).read_text()
    return found


def exported_keys():
    """The stored value of each key."""
    exported = client().call(CONFIGURATION, "export")
    profile = json.loads(exported["document"] if isinstance(exported, dict) else exported)["profile"]
    return {f"{component}/{group}/{key}": value for component, groups in profile.items()
            for group, keys in groups.items() for key, value in keys.items()}


def check_configuration(expected, told):
    with contextlib.closing(sqlite3.connect(f"file:{STORE}?mode=ro", uri=True)) as store:
        if (said := store.execute("PRAGMA integrity_check").fetchone()[0]) != "ok":
            yield f"the store is damaged: {said}"
    sides = set()
    for part, values in (("keys", exported_keys()), ("files", configured_files())):
        old, new = expected["old"][part], expected["new"][part]
        for key in old.keys() | new.keys() | values.keys():
            side = next((name for name, side in (("old", old), ("new", new)) if values.get(key) == side.get(key)), None)
            if old.get(key) != new.get(key):
                sides.add(side)
            if not side:
                yield f"{part} {key} is neither old nor new: {values.get(key)!r}"
    told["configuration"] = "mixed" if len(sides) > 1 else sides.pop() if sides else "old"


def check_tasks(expected, told):
    records = json.loads((LIFECYCLE / "task-status.json").read_text())
    tasks = client().call("com.tessel.cis.tasks", "list")
    for path in LIFECYCLE.glob("task-status.json.*"):
        yield f"{path.name} was set aside"
    for task, seen in expected["tasks"].items():
        if task not in tasks:
            yield f"the task {task} is lost, seen as {seen and seen['status']}"
        elif seen and seen["status"] in ENDED and tasks[task] != seen:
            yield f"the task {task} is {tasks[task]}, and was {seen}"
    for task in records:
        info = tasks.get(task)
        if not info:
            yield f"the record of {task} does not read"
        elif info["status"] not in ENDED:
            yield f"the task {task} has not ended: {info}"
        elif info["status"] == "FAILED" and not info.get("error"):
            yield f"the task {task} failed without a reason"
    told["tasks"] = sorted(f"{info['operation'].rpartition('.')[2]} {info['status']}"
                           for task, info in tasks.items() if task not in expected["old"]["tasks"])
    for pattern in ("lifecycle.task", "lifecycle.apply.pid", "swspec-*", "depots-*", "config-*", "image-*"):
        for path in LIFECYCLE.glob(pattern):
            yield f"{path.name} was left"
    yield from check_effects(expected, told, tasks)


def check_effects(expected, told, tasks):
    """What succeeded has happened."""
    for task, info in tasks.items():
        if info["status"] == "SUCCEEDED" and task not in expected["old"]["tasks"]:
            for part in EFFECTS.get(info["operation"].removeprefix("com.tessel.ryx."), ()):
                if told.get(part) != "new":
                    yield f"{info['operation']} succeeded, and {part} is {told.get(part)}"


def check_desired(expected, told):
    depots = {depot["name"] for depot in client().call(SETTINGS + "depots", "list")}
    for name in expected["depots"]:
        if name not in depots:
            yield f"the registered depot {name} is lost"
    if expected["software"]:
        desired = client().call(SETTINGS + "software", "get")
        if not any(spec["base_image"] == desired["base_image"] for spec in expected["software"]):
            yield f"the desired software is {desired}"


def check_next_apply(expected, told):
    """The host takes the next change as if nothing had been."""
    def tell(**_):
        pass
    image = "served" if expected["kind"] == "activation" else "new"
    must_succeed(guest_operations.change_software(tell, "apply$task", image))
    scanned = must_succeed(guest_operations.change_software(tell, "scan$task", image))
    if scanned["status"] != "COMPLIANT":
        yield f"a scan after the next apply says {scanned['status']}"
    yield from faults_of_bank("current")
    yield from check_activation(expected, told)
    if expected["kind"] not in ("configuration", "both"):
        return  # has nothing to do with the configuration, and applying that takes its time
    guest_operations.configure(tell, "new")
    checked = must_succeed(guest_operations.run_task(tell, CONFIGURATION, "check_compliance$task",
                                                     document=DOCUMENTS["new"]))
    for host in checked["compliance"]:
        for setting in host["settings"]:
            if setting["status"] != "COMPLIANT":
                yield f"after the next apply of the configuration: {setting}"
