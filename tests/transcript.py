"""Transcripts of client sessions as files: read, written so that people can read them, compared, and recorded anew."""

import difflib
import math
import re

import yaml

WIDTH = 120


class _Dumper(yaml.SafeDumper):
    """Writes strings in double quotes where line ends, tabs or single quotes are seen better so."""

    def ignore_aliases(self, data):
        return True


def _represent_text(dumper, text):
    shown = any(c in text for c in "\n\t\x85\u2028\u2029")
    apostrophe = "'" in text and '"' not in text and "\\" not in text
    double = (shown or apostrophe) and not dumper.analyze_scalar(text).allow_flow_plain
    return dumper.represent_scalar("tag:yaml.org,2002:str", text, style='"' if double else None)


_Dumper.add_representer(str, _represent_text)


def _dumped(value):
    text = yaml.dump(value, Dumper=_Dumper, default_flow_style=True, width=math.inf, allow_unicode=True,
                     sort_keys=False)
    return text.removesuffix("\n").removesuffix("\n...")


def _is_block(value):
    """Whether text is best seen as it is, in the lines that it has."""
    if not isinstance(value, str) or value != value.strip(" \n") or not value.replace("\n", "").isprintable():
        return False
    return "\n" in value and " \n" not in value or len(value) < 110 and "''" in _dumped(value)[1:-1]


def _fits(value, whole):
    parts = value.values() if isinstance(value, dict) else value if isinstance(value, list) else ()
    return len(whole) <= WIDTH and not _is_block(value) and not any(_is_block(part) for part in parts)


def _rows(words, width):
    """Words in lines of a width."""
    rows = [""]
    for word in words:
        if rows[-1] and len(rows[-1]) + 1 + len(word) > width:
            rows.append("")
        rows[-1] += " " * (rows[-1] != "") + word
    return rows


def _folded(head, text, margin):
    """Text over several lines: below a key, or behind a list's dash."""
    words = re.split("(?<! ) (?! )", _dumped(text))  # only a single space can be a line's end
    rows = [f"{margin}  {row}" for row in _rows(words, WIDTH - len(margin) - 2)]
    return [f"{margin}- {rows[0].lstrip()}", *rows[1:]] if head == "-" else [margin + head, *rows]


def _beside(head, value, margin):
    """A structure's members in two lines, if they are short and these hold them."""
    members = [_dumped({key: part})[1:-1] + "," for key, part in value.items()]
    room = len(margin + head) + 2
    rows = _rows(members, WIDTH - room)
    if max(map(len, members)) > 90 or len(rows) != 2 or any(map(_is_block, value.values())):
        return None
    return [f"{margin}{head} {{{rows[0]}", " " * room + rows[1][:-1] + "}"]


def _lines(head, value, margin=""):
    """Lines of `value` behind `head`, which is "KEY:" or "-": one line where it fits, else one for each part."""
    whole = f"{margin}{head} {_dumped(value)}"
    if margin + head != "-" and _fits(value, whole):
        return [whole]
    if _is_block(value):
        return [f"{margin}{head} |-", *("  " + margin + line if line else "" for line in value.split("\n"))]
    if isinstance(value, str):
        return _folded(head, value, margin)
    if isinstance(value, dict) and not {"call", "answer", "error", "task"} & set(value):
        beside = _beside(head, value, margin)
        if beside:
            return beside
    parts = [(_dumped(key) + ":", part) for key, part in value.items()] if isinstance(value, dict) else [
        ("-", part) for part in value]
    deeper = margin if isinstance(value, list) and head != "-" else margin + "  "
    inner = [line for name, part in parts for line in _lines(name, part, deeper)]
    return [f"{margin}- {inner[0].lstrip()}", *inner[1:]] if head == "-" else [margin + head, *inner]


def step_lines(step):
    """The lines of a step in a transcript."""
    return _lines("-", step)


class Transcript:
    """A file with `given` names for values and the `steps` of a session."""

    def __init__(self, path):
        self.path, self._text = path, path.read_text()
        content = yaml.safe_load(self._text)
        self.given, self.steps = content.get("given", {}), content["steps"]
        (nodes,) = (value.value for key, value in yaml.compose(self._text).value if key.value == "steps")
        self._starts = [node.start_mark.line for node in nodes]

    def difference(self, seen, filled):
        """What was seen otherwise than told, step by step. `filled` puts in what names of structures stand for."""
        for start, told, step in zip(self._starts, self.steps, seen, strict=True):
            lines = [step_lines(filled(version)) for version in (told, step)]
            if lines[0] != lines[1]:
                place = f"{self.path.name}:{start + 1}"
                yield from difflib.unified_diff(*lines, f"told in {place}", "seen", lineterm="", n=4)

    def record(self, seen, filled):
        """Replaces the steps that went otherwise by what was seen; the rest of the file stays as it is."""
        lines = self._text.split("\n")
        ends = [*self._starts[1:], len(lines)]
        for start, end, told, step in reversed([*zip(self._starts, ends, self.steps, seen, strict=True)]):
            while not lines[end - 1].strip() or lines[end - 1].startswith("#"):
                end -= 1
            if step_lines(filled(told)) != step_lines(filled(step)):
                lines[start:end] = step_lines(step)
        self.path.write_text("\n".join(lines))
