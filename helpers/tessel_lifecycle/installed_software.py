"""The inline commands that report what is installed, straight from the image's database."""

from tessel_lifecycle import paths, pending_reboot
from tessel_lifecycle.banks import Banks
from tessel_lifecycle.document import compact
from tessel_lifecycle.errors import NO_IMAGE_INFO, CommandError, ImageError

_NOTHING = {"base_image": None, "components": [], "paxs": [], "solutions": [], "hardware_support": []}


def _reporting(report):
    """A command that prints what `report` makes of the database, which is _NOTHING when nothing is installed."""
    def command(options):
        try:
            database = Banks(paths.IMAGE).database()
            return compact(report(_NOTHING if database is None else database, *options["values"]))
        except ImageError as error:
            failure = error
        except (KeyError, TypeError, AttributeError) as error:
            failure = f"the image database has a wrong shape: {error!r}"
        raise CommandError(NO_IMAGE_INFO, ImageError("SoftwareInfoExtractError", detail=failure))
    return command


def _display(unit, *more):
    """The members of a unit's document that every listing shows, and some more."""
    shown = {"version": unit["version"], "display_name": unit.get("display_name") or unit.get("name", ""),
             "display_version": unit.get("display_version") or unit["version"], "vendor": unit.get("vendor") or ""}
    return shown | {name: unit[name] for name in more}


def _without(fields, *names):
    return {name: value for name, value in fields.items() if name not in names}


@_reporting
def software_info(database):
    """Everything that is installed, but for packages."""
    info = {}
    if database["base_image"]:
        info["base_image"] = _display(database["base_image"], "release_date")
        info["installed_at"] = database["installed_at"]
    if database.get("add_on"):
        info["add_on"] = _display(database["add_on"], "name", "release_date")
    info["solutions"] = {entry["document"]["name"]: _display(entry["document"], "release_date")
                         | {"components": entry["components"]} for entry in database["solutions"]}
    info["hardware_support"] = {m["manager"]: _without(_display(m, "package"), "display_version")
                                for m in database["hardware_support"]}
    info["components"] = {c["document"]["name"]: _display(c["document"]) for c in database["components"]}
    waiting = pending_reboot.pending(Banks(paths.IMAGE))
    return info | ({"reboot_pending": waiting} if waiting else {})


@_reporting
def base_image(database):
    """The installed base image, or null."""
    unit = database["base_image"]
    return unit and _display(unit, "release_date") | {
        "installed_at": database["installed_at"], "components": unit["components"]}


@_reporting
def component(database, name):
    """One installed component, or null."""
    for entry in database["components"]:
        if entry["document"]["name"] == name:
            return {"component": name, **_display(entry["document"]), "source": entry["source"],
                    "installed_at": entry["installed_at"],
                    "paxs": [{"name": p["name"], "version": p["version"]} for p in entry["document"]["paxs"]]}
    return None


@_reporting
def components(database):
    """All installed components."""
    return [{"component": entry["document"]["name"], **_without(_display(entry["document"]), "vendor")}
            for entry in database["components"]]


@_reporting
def packages(database):
    """All installed packages."""
    return _packages(database)


@_reporting
def orphan_packages(database):
    """The installed packages that no component holds."""
    return [package for package in _packages(database) if "component" not in package]


def _packages(database):
    holders = {pax["name"]: {"component": entry["document"]["name"], "component_version": entry["document"]["version"]}
               for entry in database["components"] for pax in entry["document"]["paxs"]}
    return [_without(pax, "depot", "file") | holders.get(pax["name"], {})
            | ({"source": pax["depot"]} if pax["depot"] else {}) for pax in database["paxs"]]
