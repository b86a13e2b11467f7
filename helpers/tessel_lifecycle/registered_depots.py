"""Asking the registered depots what they have, for commands whose caller waits."""

from tessel_lifecycle.errors import NOT_FOUND, NOT_REACHABLE, CommandError, ImageError, Note
from tessel_lifecycle.fetch import INLINE
from tessel_lifecycle.many_depots import ManyDepots
from tessel_lifecycle.spec import check_available

_KINDS = ("base_images", "add_ons", "components", "solutions", "manifests")


class RegisteredDepots:
    """What the depots of a desired state describe, and why some could not be asked."""

    def __init__(self, desired):
        """Asks all depots. @throws ImageError when two of them contradict each other"""
        depots = desired.depots()
        self._any = bool(depots)
        asked = ManyDepots([depot["url"] for depot in depots], INLINE, _KINDS, names_only=True)
        self._catalogue, self._failures = asked.catalogue, list(asked.failures.values())
        _note_reachable(desired, {depot["name"]: number not in asked.failures for number, depot in enumerate(depots)})

    def check(self, spec):
        """Raises CommandError when a specification names something that no depot has."""
        try:
            check_available(spec, self._catalogue)
        except ImageError as error:
            if self._failures:
                others = [note for failure in self._failures for note in failure.notes]
                raise CommandError(NOT_REACHABLE, f"{error}; not reached: {self._failures[0]}",
                                   [*error.messages(), Note("DepotNotAsked"), *others]) from error
            raise CommandError(NOT_FOUND, error, () if self._any else [Note("DepotsEmpty")]) from error


def _note_reachable(desired, reachable):
    """Remembers which depots answered, for the listing."""
    def noted(depots):
        return [depot | {"reachable": reachable.get(depot["name"], depot["reachable"])} for depot in depots]

    if noted(desired.depots()) != desired.depots():
        with desired.locked():
            desired.set_depots(noted(desired.depots()))
