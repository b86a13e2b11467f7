"""Registered depots: the inline commands that list, register and forget them."""

import sys

from tessel_lifecycle import paths


def list_depots(_):
    """Prints what is stored, which is the answer already: it is asked for often and has to be quick."""
    try:
        with open(paths.REGISTERED_DEPOTS) as file:
            return file.read()
    except FileNotFoundError:
        return "[]"


def create(_):
    """Registers the depot of the create_spec on standard input, once it has answered."""
    from tessel_lifecycle.depot import Depot
    from tessel_lifecycle.errors import NOT_REACHABLE, CommandError, ImageError
    from tessel_lifecycle.fetch import INLINE
    spec, desired = _create_spec(sys.stdin.buffer.read(1 << 20)), _desired()
    _refuse_known(desired.depots(), spec["name"])
    try:
        depot = Depot(spec["url"], INLINE).connect()
    except ImageError as error:
        raise CommandError(NOT_REACHABLE, error) from error
    with desired.locked():
        known = desired.depots()
        _refuse_known(known, spec["name"])
        desired.set_depots(known + [spec | {"vendor": depot.vendor, "reachable": True}])
    return ""


def _desired():
    from tessel_lifecycle.desired import DesiredState
    return DesiredState(paths.DESIRED)


def _create_spec(data):
    from tessel_lifecycle.document import Fields, parse, text
    from tessel_lifecycle.errors import INTERNAL, CommandError, Note
    try:
        fields = Fields(parse(data), "create_spec")
        spec = {"name": fields.take("name", text), "url": fields.take("url", text)}
        description = fields.take("description", text, None)
    except ValueError as error:
        raise CommandError(INTERNAL, error, [Note("Detail", error)]) from error
    if not _is_depot_name(spec["name"]):
        told = [Note("com.tessel.ryx.host_settings.depot.name.invalid"),
                Note("com.tessel.ryx.host_settings.depot.name.form", f"{spec['name']:.80}")]
        raise CommandError(INTERNAL, f"not a depot's name: {spec['name']!r:.80}", told)
    return spec if description is None else spec | {"description": description}


def _is_depot_name(name):
    """Whether it can stand as one word on the command line that forgets the depot again."""
    return (0 < len(name) <= 256 and not name.startswith("-") and name.isprintable()
            and not any(c.isspace() or c in ";\\*+%$~!\"':" for c in name))


def _refuse_known(known, name):
    from tessel_lifecycle.errors import EXISTS, CommandError, Note
    for depot in known:
        if depot["name"] == name:
            raise CommandError(EXISTS, f"depot {name} is registered already",
                               [Note("com.tessel.ryx.host_settings.depot.exists", name, depot["url"])])


def delete(options):
    """Forgets a registered depot."""
    from tessel_lifecycle.errors import NOT_FOUND, CommandError, Note
    name, desired = options["values"][0], _desired()
    with desired.locked():
        known = desired.depots()
        left = [depot for depot in known if depot["name"] != name]
        if len(left) == len(known):
            raise CommandError(NOT_FOUND, f"no depot {name} is registered", [
                Note("com.tessel.ryx.host_settings.depot.registered",
                     ", ".join(depot["name"] for depot in known[:10]) or "(none)")])
        desired.set_depots(left)
    return ""
