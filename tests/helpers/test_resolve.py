"""Which components an image gets, and why a specification is refused."""

import pytest
from depot_maker import add_on, base_image, component, manifest, package, solution
from tessel_lifecycle.catalogue import KINDS, Catalogue
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.resolve import resolve
from tessel_lifecycle.spec import SoftwareSpec

DIGEST = "0" * 64


def catalogue(*units):
    made = Catalogue()
    for kind, document, *files in units:
        if kind == "paxs":
            listing = [{"path": path, "type": "file", "size": 0, "sha256": DIGEST} for path in files[0]]
            descriptor = document | {"files": listing, "payload": {"name": "p", "size": 0, "sha256": DIGEST}}
            document = {"version": document["version"], "size": 0, "sha256": DIGEST, "descriptor": descriptor}
        made.add(KINDS[kind](document))
    return made


def spec(components=None, add_on=None, solutions=None, support=None):
    document = {"base_image": {"version": "8.0-1"},
                "components": {name: {"version": version} for name, version in (components or {}).items()},
                "solutions": {n: {"version": "1-1", "components": parts} for n, parts in (solutions or {}).items()},
                "hardware_support": {manager: {"package": "rack", "version": "1-1"} for manager in support or ()}}
    return SoftwareSpec(document | ({"add_on": {"name": add_on, "version": "1-1"}} if add_on else {}))


BASE = [base_image(components={"core": "1-1", "net": "2-1"}), component("core"), component("net", "2-1"),
        component("net", "2-2"), component("net", "1-9"), component("extra"), component("extra", "3-1")]

CHOSEN = {
    "base image alone": (spec(), [], {"core": "1-1", "net": "2-1"}),
    "newest component": (spec({"extra": None}), [], {"core": "1-1", "net": "2-1", "extra": "3-1"}),
    "add-on upgrades, adds and removes": (
        spec(add_on="oem"), [add_on("oem", components={"net": "2-2", "extra": "1-1"}, removed_components=["core"])],
        {"net": "2-2", "extra": "1-1"}),
    "hardware support only raises": (
        spec(support=["hsm"]), [manifest("m", {"net": "1-9", "extra": "3-1"})],
        {"core": "1-1", "net": "2-1", "extra": "3-1"}),
    "hardware support for another base image is not asked": (
        spec(support=["hsm"]), [manifest("m", {"extra": "1-1"}), manifest("n", {"extra": "3-1"}, ">=9")],
        {"core": "1-1", "net": "2-1", "extra": "1-1"}),
    "solution takes the newest that fits together": (
        spec(solutions={"s": []}),
        [solution("s", {"agent": "*", "filter": "*"}), component("agent", "2-1", conflicts={"filter": "<3"}),
         component("agent", "1-1"), component("filter", "2-1")],
        {"core": "1-1", "net": "2-1", "agent": "1-1", "filter": "2-1"}),
    "only the named components of a solution": (
        spec(solutions={"s": ["extra"]}), [solution("s", {"extra": "<2", "agent": "*"})],
        {"core": "1-1", "net": "2-1", "extra": "1-1"}),
    "client's choice within a solution": (
        spec({"extra": "1-1"}, solutions={"s": []}), [solution("s", {"extra": "*"})],
        {"core": "1-1", "net": "2-1", "extra": "1-1"}),
    "what an add-on replaces need not be described": (
        spec(add_on="oem"), [base_image("8.0-1", {"core": "1-1", "gone": "7-1"}),
                             add_on("oem", removed_components=["gone"])],
        {"core": "1-1"}),
}


@pytest.mark.parametrize("case", CHOSEN)
def test_chosen_components(case):
    wanted, more, expected = CHOSEN[case]
    base = BASE[1:] if any(kind == "base_images" for kind, *_ in more) else BASE
    content = resolve(wanted, catalogue(*base, *more))
    assert {name: version.text for name, version in content.versions().items()} == expected


REFUSED = {
    "unknown base image": (spec(), [base_image("8.0-2")], "BaseImageNotFound", ["8.0-1"]),
    "unknown component at all": (spec({"none": None}), [], "ComponentNotFoundError", ["none"]),
    "unknown version of a component": (spec({"net": "2-3"}), [], "ComponentNotFoundError", ["net(2-3)"]),
    "unknown solution": (spec(solutions={"s": []}), [solution("t", {})], "SolutionNotFound", ["s", "1-1"]),
    "unknown version of a solution": (
        spec(solutions={"s": []}), [solution("s", {}, "2-1")], "SolutionNotFound", ["s", "1-1"]),
    "unknown hardware support": (
        spec(support=["other"]), [manifest("m")], "HardwareSupportPackageNotFound", ["other", "rack", "1-1"]),
    "two hardware support packages": (
        spec(support=["hsm", "two"]), [manifest("m"), ("manifests", manifest("n")[1] | {"manager": "two"})],
        "MultipleManifestError", []),
    "add-on that removes what is absent": (
        spec(add_on="oem"), [add_on("oem", removed_components=["extra"])], "AddonValidationError", ["oem"]),
    "not the solution's component": (
        spec(solutions={"s": ["extra"]}), [solution("s", {"net": "*"})], "SolutionComponentNotFound", ["extra", "s"]),
    "no candidates go together": (
        spec(solutions={"s": []}), [solution("s", {"x": "*", "y": "*"}), component("x", conflicts={"y": "*"}),
                                    component("x", "2-1", depends={"y": ">1-1"}), component("y")],
        "IncompatibleSolutionCompsError", ["x, y", "s"]),
    "unknown component": (spec({"none": "1-1"}), [], "ComponentNotFoundError", ["none(1-1)"]),
    "unknown add-on": (spec(add_on="oem"), [], "AddonNotFound", ["oem", "1-1"]),
    "add-on for another base image": (
        spec(add_on="oem"), [add_on("oem", base_images=">8.0-1")], "AddonBaseImageMismatchError", ["oem", "8.0-1"]),
    "add-on that downgrades": (
        spec(add_on="oem"), [add_on("oem", components={"net": "1-9"})], "AddonValidationError", ["oem"]),
    "add-on that removes what is needed": (
        spec(add_on="oem"), [base_image(components={"core": "1-1", "a": "1-1"}), component("a", depends={"core": "*"}),
                             add_on("oem", removed_components=["core"])], "AddonValidationError", ["oem"]),
    "base image at odds with itself": (
        spec(), [base_image(components={"core": "1-1", "a": "1-1"}), component("a", depends={"core": ">1-1"})],
        "BaseimageValidationError", []),
    "hardware support for another base image": (
        spec(support=["hsm"]), [manifest("m", base_images="<8")],
        "ManifestBaseImageMismatchError", ["hsm", "rack", "1-1", "8.0-1"]),
    "two manifests for one base image": (
        spec(support=["hsm"]), [manifest("m"), manifest("n")], "ManifestConflictError", ["m", "n"]),
    "client's downgrade": (spec({"net": "1-9"}), [], "ComponentDowngradeError", ["net(2-1 to 1-9)"]),
    "missing dependency": (
        spec({"a": "1-1"}), [component("a", depends={"b": "*"})], "ComponentValidationError", []),
    "conflict": (spec({"a": "1-1"}), [component("a", conflicts={"net": "2-1"})], "ComponentValidationError", []),
    "packages are not described": (
        spec({"a": "1-1"}), [component("a", paxs=["q", "p"])], "MissingPaxError", ["p(1-1), q(1-1)"]),
    "cycle of dependencies": (
        spec({"a": "1-1", "b": "1-1"}), [component("a", depends={"b": "*"}), component("b", depends={"a": "*"})],
        "ComponentValidationError", []),
    "cycle of package dependencies": (
        spec({"a": "1-1"}), [component("a", paxs=["p", "q"]), package("p", {}, depends=[{"name": "q"}]),
                             package("q", {}, depends=[{"name": "p"}])], "ComponentValidationError", []),
    "one file in two packages": (
        spec({"a": "1-1"}), [component("a", paxs=["p", "q"]), package("p", ["etc/x"]), package("q", ["etc/x"])],
        "ComponentValidationError", []),
    "a file below another package's file": (
        spec({"a": "1-1"}), [component("a", paxs=["p", "q"]), package("p", ["etc"]), package("q", ["etc/x"])],
        "ComponentValidationError", []),
    "two versions of a package": (
        spec({"a": "1-1", "b": "1-1"}), [component("a", paxs=["p"]), component("b", paxs=["p 2-1"]), package("p", {}),
                                         package("p 2-1", {})], "ComponentValidationError", []),
    "component of the base image is not described": (
        spec(), [base_image(components={"nowhere": "1-1"})], "MissingComponentError", []),
    "solution's components are nowhere": (
        spec(solutions={"s": []}), [solution("s", {"x": "*", "extra": ">9", "net": "*"})],
        "SolutionComponentNotFound", ["extra, x", "s"]),
    "no candidate goes with the image": (
        spec(solutions={"s": []}), [solution("s", {"agent": "*"}), component("agent", "2-1", conflicts={"core": "*"}),
                                    component("agent", "1-1", depends={"net": ">2-1"})],
        "IncompatibleSolutionComponentError", ["agent", "s", "2-1, 1-1"]),
}


@pytest.mark.parametrize("case", REFUSED)
def test_refused_specifications(case):
    wanted, more, name, arguments = REFUSED[case]
    base = BASE[1:] if any(kind == "base_images" for kind, *_ in more) else BASE
    with pytest.raises(ImageError) as refused:
        resolve(wanted, catalogue(*base, *more))
    assert (refused.value.name, refused.value.arguments) == (name, arguments)
    assert "{" not in refused.value.text


def test_many_combinations_are_no_hindrance():
    choices = [component(name, f"{number}", conflicts={"z": "*"} if name == "a" else {})
               for name in "abcdef" for number in range(8)]
    units = [*BASE, *choices, component("z"), solution("s", dict.fromkeys("abcdefz", "*"))]
    with pytest.raises(ImageError, match="No compatible combination"):
        resolve(spec(solutions={"s": []}), catalogue(*units))


def test_depots_must_agree_on_release_units():
    known = catalogue(*BASE)
    known.add_all(catalogue(*BASE))
    for unit, name in ((base_image(components={}), "ReleaseUnitConflictError"),
                       (component("extra", paxs=["p"]), "ComponentFormatError")):
        with pytest.raises(ImageError) as refused:
            known.add_all(catalogue(unit))
        assert refused.value.name == name
