"""Sessions of a management client that calls with curl, each told by a transcript in sessions/."""

import contextlib
import datetime
import difflib
import functools
import json
import pathlib
import re
import shutil
import subprocess
import textwrap

import pytest

from sandboxed_host import BINARIES, MODULES, PORT, served, wait_until
from orbi_client import envelope

SESSIONS = pathlib.Path(__file__).parent / "sessions"
HELPERS = (pathlib.Path("/usr/bin/python"), BINARIES / "lifecyclectl.py")  # the first runs imagemanagerctl.py
UUID = r"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"
VOLATILE = {f'(?<="spec_id": "){UUID}': "<spec>", UUID: "<task>", r"\b[0-9a-f]{64}\b": "<sha256>",
            r'(?<="completed": )\d\d?\b': "<percent>",
            r'((?:payload_size|download_size|downloaded|"size)": )[1-9]\d*': r"\1<bytes>"}
TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"


def parse(text):
    """The lines at the margin, each with the indented ones below it; those that are indented deeper continue one."""
    steps = []
    for line in text.splitlines():
        if not line.startswith(" "):
            steps.append([line])
        elif line.startswith("    "):
            steps[-1][-1] += " " + line.strip()
        else:
            steps[-1].append(line.strip())
    return steps


def render(steps):
    """The lines of a transcript, none too long to be compared by eye."""
    wrap = functools.partial(textwrap.wrap, width=120, break_long_words=False, break_on_hyphens=False)
    for line, *rows in steps:
        yield from wrap(line, subsequent_indent="    ") or [""]
        for row in rows:
            yield from wrap(row, initial_indent="  ", subsequent_indent="      ")


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
def behaving(code):
    """Has the programs of the probe, a module that is installed, run some Python before they do their work."""
    path = MODULES / "probe/behaviour"
    path.write_text(code)
    yield
    path.unlink()


class Session:
    """Replays a transcript: takes the calls from it, and tells what was answered in the same form."""

    def __init__(self, names, log):
        self._names, self._log, self._service, self._mark = dict(names), log, "", log.mark()
        self._start = datetime.datetime.now(datetime.timezone.utc).isoformat()

    def replay(self, steps):
        return [[line, *self._step(line, rows)] for line, *rows in steps]

    def _step(self, line, rows):
        word, _, rest = line.partition(" ")
        if word == "service":
            self._service = self._filled(rest)
        elif word == "let":
            name, _, text = rest.partition(" = ")
            self._names[name] = self._filled(text)
        elif word == "$":
            return self._shell(self._filled(rest))
        elif word == "log":
            return self._logged(self._filled(rest), len(rows))
        elif word and not word.startswith("#"):
            cases = (row.partition("=>")[0].strip() for row in rows)
            return [f"{case} => {self._case(word, rest or '{}', case)}".strip() for case in cases]
        return []

    def _shell(self, command):
        printed = subprocess.run(["/bin/bash", "-c", command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                 text=True, timeout=60, check=False).stdout
        return [self._told(line) for line in printed.split("\n") if line]

    def _logged(self, text, count):
        """The daemon's lines with a text since the last time, once there are as many as are told of."""
        def lines():
            return [line.partition("]: ")[2] for line in self._log.lines[self._mark:] if text in line]

        with contextlib.suppress(AssertionError):
            wait_until(lambda: len(lines()) >= count, seconds=5)
        seen, self._mark = lines(), self._log.mark()
        return [self._told(line) for line in seen]

    def _case(self, operation, fields, case):
        """The answer to one call. `case` tells what is special: a helper of its own, a caller, values of a name."""
        kind, _, what = case.partition(" ")
        if kind == "helper":
            with replaced_helpers(self._filled(what)):
                return self._call(operation, fields)
        if kind == "behaving":
            with behaving(self._filled(what)):
                return self._call(operation, fields)
        if kind == "as":
            return self._call(operation, fields, *what.split("/"))
        if not kind:
            return self._call(operation, fields)
        values = json.loads(self._filled(what.removeprefix("in ")))
        answers = [self._call(operation, fields.replace(kind, json.dumps(value))) for value in values]
        return answers[0] if len(set(answers)) == 1 else " ".join(f"{v!r}: {a}" for v, a in zip(values, answers))

    def _call(self, operation, fields, *credentials):
        result = self._curl(self._service, operation, json.loads(self._filled(fields)), *credentials)
        output = result.get("output")
        if isinstance(output, str) and re.fullmatch(UUID, output):
            output = wait_until(lambda: self._ended(output), what=f"the end of {operation}")
        return self._told(self._error(result["error"]) if "error" in result else json.dumps(output))

    def _ended(self, task):
        """The record of a task, once it has ended; its error in the form of any other."""
        record = self._curl("com.tessel.cis.tasks", "get", {"task": task})["output"]
        if "error" in record:
            record["error"] = self._error(record["error"])
        if (record.get("result") or {}).get("spec_id"):
            self._names["spec"] = record["result"]["spec_id"]
        return record["status"] in ("SUCCEEDED", "FAILED") and record

    @staticmethod
    def _curl(service, operation, fields, user="root", password="kestrel"):
        """The result of a call, with the member "output" or "error"."""
        body = json.dumps(envelope(service, operation, fields, user, password))
        answer = subprocess.run(
            ["/usr/bin/curl", "-sS", "--data-binary", "@-", "-H", "Content-Type: application/json",
             "-H", "Accept: application/vnd.tessel.orbi.cleanjson", "-w", "\n%{http_code} %header{orbi-error}",
             f"http://localhost:{PORT}/api"], input=body, capture_output=True, text=True, check=True)
        document, _, status = answer.stdout.rpartition("\n")
        result = json.loads(document)["result"]
        assert status == "200 " + "".join(result.get("error", ())), answer.stdout
        return result

    @staticmethod
    def _error(error):
        """An error in one line: type, then of each message the identifier, arguments and text."""
        ((identifier, values),) = error.items()
        words = [identifier.removeprefix("com.tessel.orbi.std.errors.")]
        for message in values["messages"]:
            text = message["default_message"]
            words += [message["id"], json.dumps(message["args"]), text]
            if message.get("localized", text) != text:
                words += ["localized:", message["localized"]]
        return " ".join(words)

    def _filled(self, text):
        for name, value in self._names.items():
            text = text.replace(f'"<{name}>"', json.dumps(value)).replace(f"<{name}>", value)
        return text

    def _told(self, text):
        """A text with names in place of what is different each time, and of what they stand for."""
        text = re.sub(TIME, lambda time: "<now>" if time[0] > self._start else time[0], text)
        for pattern, name in VOLATILE.items():
            text = re.sub(pattern, name, text)
        for name, value in sorted(self._names.items(), key=lambda named: -len(named[1])):
            text = text.replace(value, f"<{name}>")
        return text


def host_of(daemon):
    """How configuration documents name this host."""
    document = daemon.client().call("com.tessel.ryx.kestrel_daemon.configuration", "export")["document"]
    return json.loads(document)["metadata"]["reference_host"]


@pytest.mark.parametrize("transcript", sorted(SESSIONS.glob("*.txt")), ids=lambda path: path.stem)
def test_session_goes_as_its_transcript_tells(daemon, sample_depot, tmp_path, transcript):
    shutil.copytree(sample_depot, tmp_path / "depot")
    steps = parse((SESSIONS / "names.let").read_text() + transcript.read_text())
    with served(tmp_path / "depot") as url:
        names = {"depot": url, "folder": str(tmp_path / "depot"), "tests": str(SESSIONS.parent),
                 "host": host_of(daemon)}
        replayed = Session(names, daemon.log).replay(steps)
    texts = (list(render(session)) for session in (steps, replayed))
    difference = list(difflib.unified_diff(*texts, "told", "seen", lineterm="", n=5))
    assert not difference, "\n".join(difference)
