"""Which versions go together: by hand, and compared with trying everything in worlds that are small enough for it."""

import pathlib

import pytest
import yaml
from depot_maker import add_on, base_image, component, manifest, solution
from small_worlds import compare
from tessel_lifecycle.catalogue import KINDS, Catalogue
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.resolve import resolve
from tessel_lifecycle.spec import SoftwareSpec

CASES = yaml.safe_load(pathlib.Path(__file__).with_name("solver_cases.yaml").read_text())
WORLDS = 200  # bench/solver compares as many as it is told


def texts(versions):
    return {name: version and str(version) for name, version in (versions or {}).items()}


def unit(key, relations):
    """A component of the table: `name version`, and `needs name range` or `not name range`, with ';' between."""
    told = {"needs": [], "not": []}
    for word, name, range_ in (relation.split() for relation in filter(None, relations.split(";"))):
        told[word].append({"name": name, "range": range_})
    kind, document = component(*key.split())
    return kind, document | {"depends": told["needs"], "conflicts": told["not"]}


def resolved(case):
    solutions = case.get("solutions", {})
    units = [base_image("8", texts(case.get("base"))), manifest("m", texts(case.get("support"))),
             add_on("oem", components=texts(case.get("add_on")), removed_components=case.get("removes", [])),
             *(solution(name, texts(wishes)) for name, wishes in solutions.items()),
             *(unit(key, relations) for key, relations in case["units"].items())]
    catalogue = Catalogue()
    for kind, document in units:
        catalogue.add(KINDS[kind](document))
    wanted = {"base_image": {"version": "8"}, "solutions": {name: {"version": "1-1"} for name in solutions},
              "components": {name: {"version": version} for name, version in texts(case.get("components")).items()}}
    if "add_on" in case or "removes" in case:
        wanted["add_on"] = {"name": "oem", "version": "1-1"}
    if "support" in case:
        wanted["hardware_support"] = {"hsm": {"package": "rack", "version": "1-1"}}
    return resolve(SoftwareSpec(wanted), catalogue)


@pytest.mark.parametrize("name", CASES)
def test_what_comes_of_a_specification(name):
    case = CASES[name]
    try:
        components = resolved(case).components
    except ImageError as error:
        told = f"{error.name} {', '.join(error.arguments)}".strip()
        assert (told, [note.text for note in error.notes]) == (case.get("refused"), case.get("because"))
        return
    expected = texts(case.get("gets"))
    found = {name: f"{choice.version} {choice.source[0]}{'+' * choice.pulled_in}"
             for name, choice in components.items()}
    assert {name: told if " " in expected.get(name, " ") else told.split()[0]
            for name, told in found.items()} == expected


def test_random_worlds_have_the_best_content_or_a_smallest_conflict():
    solved = sum(compare(seed) for seed in range(WORLDS))
    assert WORLDS / 5 < solved < WORLDS * 4 / 5
