"""Serving the operations of a module: one request on standard input, one answer on standard output."""

import json
import signal
import sys


class Refusal(Exception):
    """Why something cannot be done, as a message of a catalogue."""

    def __init__(self, identifier, *args, path=""):
        super().__init__(identifier, *args)
        self.answer = {"id": identifier, "args": [str(arg) for arg in args], "path": path}


def path_of(change, *names, component):
    """The place of a setting in a document, as messages tell it."""
    words = [component, change["group"], change["key"], *([change["id"]] if change["id"] is not None else []), *names]
    return "".join("/" + str(word).replace("~", "~0").replace("/", "~1") for word in words)


def with_changes(instances, changes, key):
    """A key's instances, by id, once the changes are made."""
    changed = dict(instances)
    for change in changes:
        if change["key"] != key:
            continue
        changed.pop(change["id"], None)
        if change["new"] is not None:
            changed[change["id"]] = change["new"]
    return dict(sorted(changed.items()))


def note(text):
    """Tells the host's administrator: the daemon logs what stands in standard error."""
    print(text, file=sys.stderr)


def serve(*, read, apply, validate=lambda changes: [], impact=lambda changes: []):
    """Answers the request.

    `read()` gives what is in force, "GROUP/KEY" to value; `validate(changes)` gives Refusals; `impact(changes)` gives
    "reboot" and "maintenance-mode"; `apply(changes)` makes the changes, all or none, and may raise a Refusal. Anything
    else that is raised ends the program with exit status 1 and one line in standard error.
    """
    # Being asked to end is an exception like any other, so that what was begun is taken back.
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit("asked to end"))
    try:
        request = json.load(sys.stdin.buffer)
        operation, changes = request["operation"], request["changes"]
        if operation == "read":
            answer = {"values": read()}
        elif operation == "validate":
            answer = {"errors": [refusal.answer for refusal in validate(changes)]}
        elif operation == "impact":
            answer = {"impact": sorted(set(impact(changes)))}
        elif operation == "apply":
            apply(changes)
            answer = {}
        else:
            raise ValueError(f"there is no operation {operation!r}")
    except Refusal as refusal:
        answer = {"errors": [refusal.answer]}
    except Exception as error:
        sys.exit(f"{type(error).__name__}: {error}")
    json.dump(answer, sys.stdout)
    print()
