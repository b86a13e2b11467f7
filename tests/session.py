"""Replays the steps of a session transcript against a daemon; see sessions/README.md for what steps there are."""

import contextlib
import datetime
import json
import pathlib
import re
import subprocess

import yaml

from sandboxed_host import BINARIES, MODULES, wait_until
from orbi_client import envelope

HELPERS = (pathlib.Path("/usr/bin/python"), BINARIES / "lifecyclectl.py")  # the first runs imagemanagerctl.py
SEVERITIES = ("emergency", "alert", "critical", "error", "warning", "notice", "info", "debug")
TEXTS = yaml.safe_load(pathlib.Path(__file__).with_name("message_texts.yaml").read_text())
UUID = r"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"
PLACE = "com.tessel.ryx.settings.place"
TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
SIZES = ("payload_size", "download_size", "downloaded", "size", "required_space", "free_space")
RECORD = ("description", "service", "operation", "user", "cancelable", "status", "start_time", "end_time", "progress",
          "result", "error")


@contextlib.contextmanager
def replaced_helpers(script):
    """Puts a shell script in place of the helper commands; none is there when it says "missing"."""
    with contextlib.ExitStack() as undo:
        for path in filter(pathlib.Path.exists, HELPERS):
            undo.callback(path.with_suffix(".aside").replace, path)
            path.rename(path.with_suffix(".aside"))
            if script != "missing":
                path.write_text("#!/bin/bash\n" + script + "\n")
                path.chmod(0o755)
        yield


@contextlib.contextmanager
def probe_running(code):
    """Has the programs of the probe, a module that is installed, run some Python before they do their work."""
    path = MODULES / "probe/behaviour"
    path.write_text(code)
    yield
    path.unlink()


def changed(value, change):
    """A value with all its parts passed through `change`, which gets each with its key; keys are parts, too."""
    if isinstance(value, dict):
        return {change(None, key): change(key, changed(part, change)) for key, part in value.items()}
    return [change(None, changed(part, change)) for part in value] if isinstance(value, list) else value


def without_its_text(message):
    """A message without the default text, if that is the one which belongs to its identifier, without the localised
    text, if that is the default one, and without empty arguments."""
    if "default_message" not in message:
        return message
    rest = dict(message)
    args = message.get("args", [])
    if message["id"] == PLACE and message["default_message"] == message.get("localized") == f"{args[0]}: {args[1]}":
        return {"place": f"{' '.join(filter(None, args[3:]))}: {args[0]}: {args[1]}"}
    text = re.sub(r"\{(\d)\}", lambda number: "".join(args[int(number[1]) - 1:int(number[1])]),
                  TEXTS.get(message["id"], ""))
    for name, usual in (("localized", message["default_message"]), ("default_message", text), ("args", [])):
        if rest.get(name) == usual:
            del rest[name]
    return rest


def error_form(error):
    """An error by its type, and by its messages if it has some."""
    ((identifier, fields),) = error.items()
    kind = identifier.removeprefix("com.tessel.orbi.std.errors.")
    messages = [without_its_text(message) for message in fields["messages"]]
    others = {name: value for name, value in fields.items() if name != "messages" and value is not None}
    if len(messages) == 1:
        return {"type": kind, **messages[0], **others}
    return {"type": kind, "messages": messages, **others} if messages or others else kind


def task_form(record, operation):
    """A task's record at its end, without what it always has."""
    succeeded = record["status"] == "SUCCEEDED"
    usual = {"description": {"id": "com.tessel.ryx.task.description"}, "service": "kestreld", "operation": operation,
             "cancelable": False, "start_time": "<now>", "end_time": "<now>",
             "progress": {"total": 100, "completed": 100 if succeeded else "<percent>",
                          "message": {"id": "com.tessel.ryx.task.progress"}}}
    form = {"task": record["status"]}
    form |= {name: value for name, value in record.items()
             if name != "status" and (name not in usual or json.dumps(value) != json.dumps(usual[name]))}
    form |= {name: "absent" for name in usual if name not in record}
    if list(record) != [name for name in RECORD if name in record]:
        form["order"] = list(record)
    return form


class Session:
    """Carries out steps, and tells what was seen in the form of transcripts.

    Names stand for texts and structures: `given` are those of the transcript, `found` those of the host.
    """

    def __init__(self, daemon, given, found):
        self._client, self._log, self._mark = daemon.client(), daemon.log, daemon.log.mark()
        self._service, self._names = "", dict(found)
        self._start = datetime.datetime.now(datetime.timezone.utc).isoformat()
        for name, value in given.items():
            self._names[name] = self.filled(value)

    def replay(self, step):
        """Carries out a step. Returns it as seen."""
        if "service" in step:
            self._service = step["service"]
            return step
        if "shell" in step:
            return self._shell(step)
        if "log" in step:
            return self._logged(step)
        asked = {name: value for name, value in step.items() if name in ("call", "with")}
        if "cases" in step:
            return asked | {"cases": [self._case(case, **asked) for case in step["cases"]]}
        return asked | self._case(step, **asked)

    def filled(self, value, names=None):
        """A value with what names stand for in their place; inside a longer text, structures stand as JSON."""
        names = self._names if names is None else names

        def fill(_, part):
            if not isinstance(part, str):
                return part
            if part.startswith("<") and part[1:-1] in names:
                return names[part[1:-1]]
            for name, text in names.items():
                if f"<{name}>" in part:
                    part = part.replace(f"<{name}>", text if isinstance(text, str) else json.dumps(text))
            return part
        return fill(None, changed(value, fill))

    def with_structures(self, told):
        """What is told, with the structures that names stand for."""
        return self.filled(told, {name: self._told(value) for name, value in self._names.items()
                                  if not isinstance(value, str)})

    def _shell(self, step):
        printed = subprocess.run(["/bin/bash", "-c", self.filled(step["shell"])], stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True, timeout=60, check=False).stdout
        text = self._told(printed.removesuffix("\n"))
        return {"shell": step["shell"]} | ({"prints": text} if text else {})

    def _logged(self, step):
        """The daemon's lines with a text since the last time, once there are as many as are told of."""
        def lines():
            split = (re.fullmatch(r"<([0-9]+)>.*?\]: (.*)", line, re.DOTALL) for line in self._log.lines[self._mark:])
            named = ((SEVERITIES[int(line[1]) % 8], line[2]) for line in split if line)
            return [line for line in named if self.filled(step["log"]) in ": ".join(line)]

        with contextlib.suppress(AssertionError):
            wait_until(lambda: len(lines()) >= len(step["lines"]), seconds=5)
        seen, self._mark = lines(), self._log.mark()
        return {"log": step["log"], "lines": [{severity: self._told(text)} for severity, text in seen]}

    def _case(self, case, call, **fields):
        """A case as seen: the outcome of a call, or of a call with each value of a name."""
        special = {name: value for name, value in case.items() if name in ("helper", "probe", "as", "each")}
        ((name, values),) = self.filled(case.get("each", {"none": [None]})).items()
        outcomes = []
        for value in values:
            with contextlib.ExitStack() as stack:
                if "helper" in case:
                    stack.enter_context(replaced_helpers(self.filled(case["helper"])))
                if "probe" in case:
                    stack.enter_context(probe_running(self.filled(case["probe"])))
                sent = self.filled(self.filled(fields.get("with", {}), {name: value}))
                outcome = self._outcome(call, sent, *case.get("as", "root/kestrel").split("/"))
                outcomes.append(changed(outcome, lambda key, part, value=value: [
                    f"<{name}>" if word == value else word for word in part] if key == "args" else part))
        if all(outcome == outcomes[0] for outcome in outcomes):
            return special | outcomes[0]
        told = [{name: self._told(value)} for value in values]
        return special | {"outcomes": [value | outcome for value, outcome in zip(told, outcomes)]}

    def _outcome(self, operation, fields, user, password):
        if isinstance(fields.get("document"), dict):
            fields = fields | {"document": json.dumps(fields["document"])}
        result = self._call(self._service, operation, fields, user, password)
        if "error" in result:
            return {"error": error_form(self._told(result["error"]))}
        output = result["output"]
        if isinstance(output, str) and re.fullmatch(UUID, output):
            record = wait_until(lambda: self._ended(output), what=f"the end of {operation}")
            return task_form(self._told(record), f"{self._service}.{operation}")
        return {"answer": self._told(output)}

    def _ended(self, task):
        """The record of a task, once it has ended."""
        record = self._call("com.tessel.cis.tasks", "get", {"task": task})["output"]
        if record["status"] not in ("SUCCEEDED", "FAILED"):
            return None
        if "error" in record:
            record["error"] = error_form(record["error"])
        if (record.get("result") or {}).get("spec_id"):
            self._names["earlier spec_id"] = self._names.get("spec_id", "")
            self._names["spec_id"] = record["result"]["spec_id"]
        return record

    def _call(self, service, operation, fields, user="root", password="kestrel"):
        """The result of a call, with the member "output" or "error"."""
        response, body = self._client.post(envelope(service, operation, fields, user, password))
        result = json.loads(body)["result"]
        assert (response.status, response.getheader("orbi-error", "")) == (200, "".join(result.get("error", ()))), body
        return result

    def _told(self, value):
        """A value with names in place of what is different each time, and of the texts that names stand for."""
        texts = [(text, f"<{name}>") for name, text in self._names.items() if isinstance(text, str) and text]
        texts.sort(key=lambda named: -len(named[0]))

        def tell(key, part):
            if isinstance(part, str):
                return self._told_text(part, key, texts)
            if type(part) is int and (key in SIZES and part > 0 or key == "completed" and 0 <= part < 100):
                return "<percent>" if key == "completed" else "<bytes>"
            if isinstance(part, dict) and list(part) == ["id", "default_message", "args", "localized"]:
                return without_its_text(part)
            return part
        return tell(None, changed(value, tell))

    def _told_text(self, text, key, texts):
        if key == "document":
            with contextlib.suppress(ValueError):
                document = json.loads(text)
                if json.dumps(document, separators=(",", ":"), ensure_ascii=False) == text:
                    return self._told(document)
        text = re.sub(TIME, lambda time: "<now>" if time[0] > self._start else time[0], text)
        if key != "spec_id":
            for whole, name in texts:
                text = text.replace(whole, name)
        text = re.sub(UUID, "<spec_id>" if key == "spec_id" else "<task>", text)
        return re.sub(r"\b[0-9a-f]{64}\b", "<sha256>", text)
