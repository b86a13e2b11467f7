"""Whether a helper's JSON is what the interface definitions promise to clients."""

import json
import re

from sandboxed_host import REPOSITORY

_FILES = ("kestreld_orbi_metamodel.json", "orbi_common_metamodel.json")
_MODELS = [json.loads((REPOSITORY / "metadata" / name).read_text()) for name in _FILES]
STRUCTURES = {name: s["fields"] for model in _MODELS for name, s in model.get("structures", {}).items()}
ENUMERATIONS = {name: e["values"] for model in _MODELS for name, e in model.get("enumerations", {}).items()}
_DATE_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")


def check(value, kind, plain, place="value"):
    """Asserts that a value is of a type of the metamodel, in plain or in clean JSON."""
    outer, _, inner = kind.rstrip(">").partition("<") if kind.endswith(">") else (kind, "", "")
    inner = kind[len(outer) + 1:-1]
    if outer == "optional":
        if plain:
            assert list(value) == ["OPTIONAL"], place
            value = value["OPTIONAL"]
        return value is None or check(value, inner, plain, place)
    if outer == "list":
        return [check(element, inner, plain, f"{place}[]") for element in value]
    if outer == "map":
        if plain:
            entries = [entry["STRUCTURE"]["map-entry"] for entry in value]
            value = {entry["key"]: entry["value"] for entry in entries}
        return [check(v, inner.partition(", ")[2], plain, f"{place}[{k}]") for k, v in value.items()]
    if kind in STRUCTURES:
        return _structure(value, kind, plain, place)
    if kind in ENUMERATIONS:
        assert value in ENUMERATIONS[kind], place
    elif kind == "date_time":
        assert _DATE_TIME.fullmatch(value), place
    else:
        assert type(value) is {"string": str, "integer": int, "boolean": bool}[kind], (place, kind, value)


def _structure(value, kind, plain, place):
    if plain:
        ((name, value),) = value["STRUCTURE"].items()
        assert name == kind, place
    fields = STRUCTURES[kind]
    assert value.keys() <= fields.keys(), (place, value.keys() - fields.keys())
    for name, field in fields.items():
        if name in value:
            check(value[name], field["type"], plain, f"{place}.{name}")
        else:
            assert not plain and field["type"].startswith("optional<"), f"{place}.{name} is missing"
