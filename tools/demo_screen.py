"""What the demonstration shows: its steps, and the progress of tasks."""

import itertools
import sys

_steps = itertools.count(1)


def step(title):
    """Begins the next step."""
    print(f"\n{next(_steps)}. {title}", flush=True)


def say(text):
    """Tells something within a step."""
    print(f"    {text}", flush=True)


def count(number, thing):
    """A number of things in words: "1 package", "2 packages"."""
    return f"{number} {thing}" + ("" if number == 1 else "s")


class Progress:
    """Shows a task's progress: one line that fills on a terminal, a line per step elsewhere."""

    def __init__(self, what):
        self._what = what
        self._shown = None

    def __call__(self, info):
        progress = info.get("progress") or {"completed": 0, "total": 100}
        percent = 100 * progress["completed"] // max(1, progress["total"])
        state = (info["status"], percent if sys.stdout.isatty() else percent // 25)
        if state == self._shown or not sys.stdout.isatty() and info["status"] == "PENDING":
            return
        self._shown = state
        ended = info["status"] in ("SUCCEEDED", "FAILED")
        bar = "#" * (percent // 4)
        line = f"    {self._what:<7} [{bar:<25}] {percent:3d} %  {info['status'].lower()}"
        if sys.stdout.isatty():
            print(f"\r{line:<78}", end="\n" if ended else "", flush=True)
        else:
            print(line, flush=True)


def follow(client, what, service, operation, **fields):
    """Starts a task, shows its progress, and returns its result; ends the program when the task fails."""
    task = client.call(service, operation, **fields)
    info = client.wait_for_task(task, Progress(what), interval=0.05)
    if info["status"] == "FAILED":
        messages = (info.get("error") or {"": {}}).popitem()[1].get("messages", [])
        sys.exit(f"{what} failed: " + " ".join(message["default_message"] for message in messages))
    return info["result"]
