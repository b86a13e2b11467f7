"""Runs inside a booted host: kills worker, guard, or both at their calls while the image is changed and activated.

Arguments: the way to change it ("apply", "switch"), who is killed, at every how many calls, at which to begin, and how
many at most; STAY may give the seconds that services have to stay up, in place of the host's. The library that kills
is build/booted/fault_injection.so. After each kill the image is the old or the new one and whole, links, services and
settings are those of it, no mark is left, and the next tasks succeed.
"""

import collections
import os
import pathlib
import shutil
import subprocess
import sys
import uuid

sys.path.insert(0, "/repository/tests")

import image_on_host as on_host
from fault_injection import KILL_BOTH, KILL_GUARD, KILL_WORKER, NOTHING, Breaker
from image_on_host import IMAGE, PARAMETER, sh, shown, until

LIBRARY = "/repository/build/booted/fault_injection.so"
VICTIMS = {"worker": KILL_WORKER, "guard": KILL_GUARD, "both": KILL_BOTH}
OLD = ["word 1-1"]
NEW = ["word 2-1", "instance 1-1", "settings 1-1"]
LINKS = {"old": ["word.service"], "new": ["70-settings.conf", "at@.service", "word.service"]}
MARKS = ("activation.json", "activation.json.new", "current.back", "current.new", "reboot.json")


def which():
    """The image that runs, "old" or "new", of which everything has to be as it is then."""
    name = {"one": "old", "two": "new"}[until(on_host.word)]
    assert on_host.links() == LINKS[name], (name, on_host.links())
    assert shown("word") == "active" and (shown("at@x") == "active") == (name == "new"), name
    assert name == "new" or PARAMETER.read_text() == "0\n"
    assert (IMAGE / "current/root/lib/systemd/system/at@.service").exists() == (name == "new")
    assert sh("systemctl", "--failed", "--plain", "--no-legend") == ""
    return name


class Matrix:
    def __init__(self, way):
        self.breaker, self.way = Breaker(pathlib.Path("/run")), way
        folder = pathlib.Path("/run/systemd/system/kestreld.service.d")
        folder.mkdir(parents=True)
        (folder / "kills.conf").write_text(
            f"[Service]\nEnvironment=LD_PRELOAD={LIBRARY} FAULT_PLAN={self.breaker.path}\n")
        sh("systemctl", "daemon-reload")
        sh("systemctl", "restart", "kestreld")
        self.host = on_host.own_host()
        self.host.apply(*OLD)

    def prepare(self):
        """The old image runs; the spare bank is empty, or has the new one."""
        self.breaker.plan(NOTHING)
        if self.way == "switch" and self.host.installed()["components"].keys() != {"word", "instance", "settings"}:
            self.host.apply(*NEW)
        self.host.apply(*OLD)
        if self.way == "apply":
            shutil.rmtree(IMAGE / {"a": "b", "b": "a"}[os.readlink(IMAGE / "current")], ignore_errors=True)
        PARAMETER.write_text("0\n")
        assert which() == "old"

    def count(self):
        self.prepare()
        self.breaker.plan(NOTHING)
        self.host.apply(*NEW)
        return self.breaker.calls()[0]

    def kill(self, victim, point):
        """Kills at one of the calls. Returns how the task ended, and which image ran then."""
        self.prepare()
        self.breaker.plan(VICTIMS[victim], worker_at=point)
        info = self.host.end(self.host.begin(*NEW))
        reached = self.breaker.calls()[0] >= point
        self.breaker.plan(NOTHING)
        after = "-"
        if victim != "both":
            assert not any(os.path.lexists(IMAGE / name) for name in MARKS[:1]), sorted(os.listdir(IMAGE))
            after = which()
            assert (info["status"] == "SUCCEEDED") <= (after == "new"), (info, after)
            assert victim == "worker" or info["status"] == "SUCCEEDED" or not reached, info
        if info["status"] == "FAILED" and self.way == "apply":
            self.no_way_to_what_never_ran()
        self.host.apply(*NEW)
        assert which() == "new"
        self.host.apply(*OLD)
        PARAMETER.write_text("0\n")
        assert which() == "old"
        left = [name for name in MARKS if os.path.lexists(IMAGE / name)]
        assert not left, left
        return info["status"], after

    def no_way_to_what_never_ran(self):
        subprocess.run([*on_host.HELPER, "software", "--rollback", "--task-id", str(uuid.uuid4())], check=False,
                       stderr=subprocess.DEVNULL)
        PARAMETER.write_text("0\n")  # going back leaves it when the change had ended already
        assert which() == "old" or (IMAGE / "current/proved").exists(), "rollback went to an image that never ran"


def main(way, victim, step="1", begin="1", most="1000"):
    if os.environ.get("STAY"):
        file, = pathlib.Path("/usr/lib/tessel").rglob("tessel_lifecycle/service_watch.py")
        file.write_text(file.read_text().replace("STAY = 5 ", f"STAY = {os.environ['STAY']} "))
    matrix = Matrix(way)
    count = matrix.count()
    points = list(range(int(begin), count + 1, int(step)))[:int(most)]
    outcomes, bad = collections.Counter(), []
    for point in points:
        try:
            outcomes[matrix.kill(victim, point)] += 1
        except AssertionError as error:
            bad.append(point)
            print(f"{way}, {victim} at call {point}, line {error.__traceback__.tb_next.tb_lineno}: {error}", flush=True)
            if len(bad) > 5:
                break
    print(f"{way}, {victim}: {len(points)} of {count} calls, {dict(outcomes)}, wrong: {bad}", flush=True)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
