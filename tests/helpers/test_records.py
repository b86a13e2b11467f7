"""The task status file under a helper's hands: its own record changes, and not a byte of what others wrote."""

import json
import os
import re
import stat
import uuid

import pytest
from tessel_lifecycle import files, record_span, records
from tessel_lifecycle.lock import LockTimeout, access_lock
from tessel_lifecycle.records import FileRecords

OWN = "3b7c1c0e-4d1b-4f0e-9f57-0d9a6f1e2a33"
RECORD = '{"status":"PENDING","n":1}'
CHANGED = '{"status":"RUNNING","n":1}'
OTHER = '"0f0f":{"status":"SUCCEEDED","result":"{\\"a\\":[1]}"}'

# What is changed in place: a text around RECORD.
IN_PLACE = {
    "alone": '{"OWN":RECORD}',
    "last": "{OTHER,\"OWN\":RECORD}",
    "first": "{\"OWN\":RECORD,OTHER}",
    "formatted": "\n{\r\n\t\"other\" : { \"a\" : 1.50e+2 } ,\n  \"OWN\"\t:\n RECORD \n}\n ",
    "identifier as a value": '{"a":{"of":"OWN"},"OWN":RECORD,"b":["OWN"]}',
    "identifier in a text": '{"a":{"x":"OWN"},"b":{"x":"task OWN:{}"},"OWN":RECORD}',
    "record in a text": '{"a":"{\\"OWN\\":{}}","OWN":RECORD}',
    "record in a text in a text": '{"a":"{\\\\\\"OWN\\\\\\":{}}","OWN":RECORD}',
    "text that ends like the name": '{"a \\"OWN":{"status":1},"OWN":RECORD}',
    "text that ends with a backslash": '{"a":"\\\\","OWN":RECORD,"b\\\\":"\\\\\\\\"}',
    "brackets in texts": '{"a":"}","b":"{{[","OWN":RECORD,"c":"\\"}{\\"","d":["}","]"]}',
    "empty texts": '{"":"","a":["",""],"OWN":RECORD,"b":""}',
    "members twice elsewhere": '{"a":1,"a":2,"OWN":RECORD}',
    "numbers as they were written": '{"a":{"n":1E30,"m":-0.0,"k":12345678901234567890.10},"OWN":RECORD}',
    "what looks like a large number": '{"a":"\\" 5e400: ,1E999 ","OWN":RECORD}',
    "not UTF-8": '{"a":"\udcff\udcc3","OWN":RECORD}',
    "escapes": '{"a":"\\u00e9\\ud83d\\ude00\\udc00\\\\ud800","\\u0062":1,"OWN":RECORD}',
    "deep": '{"a":' + "[" * 90 + "]" * 90 + ',"OWN":RECORD}',
    "long neighbours": '{"a":"' + "\\\\\\\"{" * 200_000 + '","OWN":RECORD,"b":"' + "x}" * 400_000 + '"}',
    "many neighbours": "{" + ",".join('"%d":{"a":"\\"{"}' % n for n in range(30_000)) + ',"OWN":RECORD,"b":[]}',
}

# What is looked at as a whole: (a text, what it becomes).
AS_A_WHOLE = {
    "missing": ('{"a":1}', '{"a":1,"OWN":{"status":"RUNNING"}}'),
    "in another record only": ('{"a":{"OWN":RECORD}}', '{"a":{"OWN":RECORD},"OWN":{"status":"RUNNING"}}'),
    "in another record, too": ('{"a":{"OWN":RECORD},"OWN":RECORD}', '{"a":{"OWN":RECORD},"OWN":CHANGED}'),
    "in a list": ('{"a":[{"OWN":RECORD}]}', '{"a":[{"OWN":RECORD}],"OWN":{"status":"RUNNING"}}'),
    "twice": ('{"OWN":{"n":0},"OWN":RECORD}', '{"OWN":CHANGED}'),
    "no object": ('{"OWN":[],"a":1}', '{"OWN":{"status":"RUNNING"},"a":1}'),
    "name with an escape": ('{"\\u0033' + OWN[1:] + '":RECORD}', '{"OWN":CHANGED}'),
    "root is a list": ('[{"OWN":RECORD}]', '{"OWN":{"status":"RUNNING"}}'),
    "cut in a neighbour": ('{"OWN":RECORD,"a":{"b":"c"}', '{"OWN":{"status":"RUNNING"}}'),
    "cut in a text": ('{"OWN":RECORD,"a":{"b":"}', '{"OWN":{"status":"RUNNING"}}'),
    "cut in itself": ('{"a":1,"OWN":{"status":"PEND', '{"OWN":{"status":"RUNNING"}}'),
    "cut behind itself": ('{"a":1,"OWN":RECORD', '{"OWN":{"status":"RUNNING"}}'),
    "begun in the middle": ('"b":1},"OWN":RECORD}', '{"OWN":{"status":"RUNNING"}}'),
    "something behind": ('{"OWN":RECORD} x', '{"OWN":{"status":"RUNNING"}}'),
    "two texts, own first": ('{"OWN":RECORD}{"a":1}', '{"OWN":{"status":"RUNNING"}}'),
    "two texts": ('{"a":1}{"OWN":RECORD}', '{"OWN":{"status":"RUNNING"}}'),
    "brackets that do not fit": ('{"a":[1},"OWN":RECORD,"b":{2]}', '{"OWN":{"status":"RUNNING"}}'),
    "no number": ('{"OWN":{"status":"PENDING","n":NaN}}', '{"OWN":{"status":"RUNNING"}}'),
    "number beyond all numbers": ('{"a":{"n":1E400},"OWN":RECORD}', '{"OWN":{"status":"RUNNING"}}'),
    "half a character": ('{"a":"\\ud800","OWN":RECORD}', '{"OWN":{"status":"RUNNING"}}'),
    "too deep": ("{\"a\":" + "[" * 100_000 + "],\"OWN\":RECORD}", '{"OWN":{"status":"RUNNING"}}'),
    "nothing but backslashes": ('{"OWN":RECORD' + "\\" * 1_000_001, '{"OWN":{"status":"RUNNING"}}'),
}


def filled(text):
    for name, value in (("OTHER", OTHER), ("RECORD", RECORD), ("CHANGED", CHANGED), ("OWN", OWN)):
        text = text.replace(name, value)
    return text.encode(errors="surrogateescape")


def run(record):
    record["status"] = "RUNNING"


@pytest.fixture
def kept(tmp_path):
    return tmp_path / "status.json"


def leftovers(path):
    """What is there beside the file, but for what was set aside."""
    return sorted(name for name in set(os.listdir(path.parent)) - {path.name} if not re.search(r"Z(-\d+)?$", name))


def aside(path):
    """What was set aside."""
    return sorted(kept.read_bytes() for kept in path.parent.glob(path.name + ".2*Z*"))


@pytest.mark.parametrize("name", IN_PLACE)
def test_a_record_is_changed_among_others(kept, name):
    text = IN_PLACE[name]
    kept.write_bytes(filled(text))
    start, end, record = record_span.find(kept.read_bytes(), OWN)
    assert (kept.read_bytes()[start:end].decode(), record) == (RECORD, json.loads(RECORD))
    FileRecords(str(kept)).change(OWN, run, 5)
    assert kept.read_bytes() == filled(text.replace("RECORD", "CHANGED")) and leftovers(kept) == []


@pytest.mark.parametrize("name", AS_A_WHOLE)
def test_what_is_in_doubt_is_read_as_a_whole(kept, name):
    before, after = map(filled, AS_A_WHOLE[name])
    kept.write_bytes(before)
    assert record_span.find(before, OWN) is None
    FileRecords(str(kept)).change(OWN, run, 5)
    assert kept.read_bytes() == after and leftovers(kept) == []
    assert aside(kept) == ([before] if len(json.loads(after)) == 1 and b"n" not in after else [])


NAMES = [str(uuid.UUID(int=n)) for n in range(40)]
FULL = {  # the records of a file that is too full for a change of OWN
    "own among the last": [*NAMES[:39], OWN, NAMES[39]],
    "own before the last": [*NAMES[:10], OWN, *NAMES[10:]],
    "own behind the last": [*NAMES, OWN],
    "own missing": NAMES,
}


@pytest.mark.parametrize("name", FULL)
@pytest.mark.parametrize("larger", [False, True])
@pytest.mark.parametrize("named", [True, False])
def test_a_file_without_room_is_set_aside(kept, monkeypatch, name, larger, named):
    under_way = {NAMES[0]: "RUNNING", NAMES[20]: "PENDING"}
    text = json.dumps({name: {"status": under_way.get(name, "FAILED"), "result": '{"status":"RUNNING"}' + "x" * 200}
                       for name in FULL[name]}, separators=(",", ":")).encode()
    monkeypatch.setattr(records, "LARGEST", len(text) + (-1 if larger else 1))
    monkeypatch.setattr(records, "_LARGEST_DECODED", 0)
    if not named:
        monkeypatch.setattr(files.Successor, "__init__", lambda *_: (_ for _ in ()).throw(OSError(95, "unknown")))
    for _ in range(2):
        kept.write_bytes(text)
        kept.chmod(0o640)
        FileRecords(str(kept)).change(OWN, lambda record: record.update(status="RUNNING", more="y" * 300), 5)
        after = json.loads(kept.read_text())
        first, second, *last, own = after
        assert [first, second, own] == [NAMES[0], NAMES[20], OWN] and after[OWN]["more"]
        assert last == NAMES[-len(last):] and 5 < len(last) < 12
        assert stat.S_IMODE(kept.stat().st_mode) == 0o640
        assert after[NAMES[0]] == json.loads(text)[NAMES[0]]
    assert aside(kept) == [text, text] and leftovers(kept) == []


def test_a_record_is_written_as_before_whatever_it_holds(kept):
    """The same bytes as a rewrite of the whole file has for it."""
    held = {"é": "\udcff", "list": [1.5, None, {"a": "\u2028\n\""}], "n": 10 ** 30}
    for neighbours in ({}, {"other": 1}):
        kept.write_text(json.dumps({**neighbours, OWN: {}}))
        FileRecords(str(kept)).change(OWN, lambda record: record.update(held), 5)
        whole = json.dumps({**neighbours, OWN: held}, separators=(",", ":"), ensure_ascii=False)
        assert kept.read_bytes().replace(b" ", b"") == whole.encode(errors="surrogateescape").replace(b" ", b"")


@pytest.mark.parametrize("text", ['{"OWN":RECORD}', '{"a":1}'])  # changed in place, and looked at as a whole
@pytest.mark.parametrize("mode", [0o600, 0o640, 0o644])
def test_the_file_keeps_its_mode_and_loses_its_other_names(kept, mode, text):
    kept.write_bytes(filled(text))
    kept.chmod(mode)
    os.link(kept, kept.with_name("kept"))
    umask = os.umask(0o077)  # as helpers have it
    try:
        FileRecords(str(kept)).change(OWN, run, 5)
    finally:
        os.umask(umask)
    assert stat.S_IMODE(kept.stat().st_mode) == mode and kept.stat().st_nlink == 1
    assert kept.with_name("kept").read_bytes() == filled(text)


def test_a_change_that_another_overtakes_is_made_again(kept, monkeypatch):
    """Another writer replaces the file each time that a change has been made ready, until the lock keeps it out."""
    kept.write_bytes(filled('{"OWN":RECORD}'))
    calls, prepared = [], files.Successor.__init__

    def overtaken(self, *arguments):
        prepared(self, *arguments)
        calls.append(len(calls))
        with access_lock(str(kept), 5):
            files.replace(str(kept), filled('{"%d":{},"OWN":RECORD}' % len(calls)))

    monkeypatch.setattr(files.Successor, "__init__", overtaken)
    FileRecords(str(kept)).change(OWN, run, 5)
    assert kept.read_bytes() == filled('{"%d":{},"OWN":CHANGED}' % len(calls)) and len(calls) > 1


def test_whoever_has_the_lock_is_waited_for(kept):
    kept.write_bytes(filled('{"OWN":RECORD}'))
    with access_lock(str(kept), 0), pytest.raises(LockTimeout):
        FileRecords(str(kept)).change(OWN, run, 0.05)
    assert kept.read_bytes() == filled('{"OWN":RECORD}') and leftovers(kept) == []


def test_without_files_without_a_name_records_are_changed_all_the_same(kept, monkeypatch):
    """As on file systems that know none."""
    real = os.open

    def refuse(path, flags, *arguments, **named):
        if flags & os.O_TMPFILE == os.O_TMPFILE:
            raise OSError(95, "Operation not supported", path)
        return real(path, flags, *arguments, **named)

    monkeypatch.setattr(os, "open", refuse)
    kept.write_bytes(filled('{"a":1,"OWN":RECORD}'))
    FileRecords(str(kept)).change(OWN, run, 5)
    assert kept.read_bytes() == filled('{"a":1,"OWN":CHANGED}')
