"""Whether a helper's JSON is what the interface definitions promise to clients."""

import json
import re

from sandboxed_host import REPOSITORY

_FILES = ("kestreld_orbi_metamodel.json", "orbi_common_metamodel.json")
_MODELS = [json.loads((REPOSITORY / "metadata" / name).read_text()) for name in _FILES]
STRUCTURES = {name: s["fields"] for model in _MODELS for name, s in model.get("structures", {}).items()}
ENUMERATIONS = {name: e["values"] for model in _MODELS for name, e in model.get("enumerations", {}).items()}
_DATE_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")


def check(value, kind, place="value"):
    """Asserts that a value in plain JSON is of a type of the metamodel."""
    outer, _, inner = kind.rstrip(">").partition("<") if kind.endswith(">") else (kind, "", "")
    inner = kind[len(outer) + 1:-1]
    if outer == "optional":
        assert list(value) == ["OPTIONAL"], place
        return value["OPTIONAL"] is None or check(value["OPTIONAL"], inner, place)
    if outer == "list":
        return [check(element, inner, f"{place}[]") for element in value]
    if outer == "map":
        entries = [entry["STRUCTURE"]["map-entry"] for entry in value]
        return [check(entry["value"], inner.partition(", ")[2], f"{place}[{entry['key']}]") for entry in entries]
    if kind in STRUCTURES:
        return _structure(value, kind, place)
    if kind in ENUMERATIONS:
        assert value in ENUMERATIONS[kind], place
    elif kind == "date_time":
        assert _DATE_TIME.fullmatch(value), place
    else:
        assert type(value) is {"string": str, "integer": int, "boolean": bool}[kind], (place, kind, value)


def _structure(value, kind, place):
    ((name, value),) = value["STRUCTURE"].items()
    assert name == kind, place
    fields = STRUCTURES[kind]
    assert value.keys() == fields.keys(), (place, value.keys() ^ fields.keys())
    for name, field in fields.items():
        check(value[name], field["type"], f"{place}.{name}")
