"""Asking the registered depots what they have, for commands whose caller waits."""

import threading
from concurrent.futures import ThreadPoolExecutor

from tessel_lifecycle.depot import Depot
from tessel_lifecycle.errors import NOT_FOUND, NOT_REACHABLE, CommandError, ImageError, Note
from tessel_lifecycle.fetch import INLINE
from tessel_lifecycle.metadata import Catalogue
from tessel_lifecycle.spec import check_available

_KINDS = ("base_images", "add_ons", "components", "solutions", "manifests")
_AT_ONCE = 8
_STACK = 1 << 20  # bytes; what threads reserve counts against the memory that an inline command may use


class RegisteredDepots:
    """What the depots of a desired state describe, and why some could not be asked."""

    def __init__(self, desired):
        """Asks all depots at once, so that dead ones cost their time-out only once."""
        self._catalogue, self._failures = Catalogue(), []
        depots = desired.depots()
        self._any = bool(depots)
        threading.stack_size(_STACK)
        with ThreadPoolExecutor(_AT_ONCE) as pool:
            answers = list(pool.map(_ask, [depot["url"] for depot in depots]))
        _note_reachable(desired, {depot["name"]: isinstance(answer, Catalogue)
                                  for depot, answer in zip(depots, answers)})
        for answer in answers:
            if isinstance(answer, Catalogue):
                self._catalogue.add_all(answer)
            else:
                self._failures.append(answer)

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


def _ask(url):
    """What a depot describes, or the ImageError that it ended in."""
    try:
        return Depot(url, INLINE).catalogue(_KINDS)
    except ImageError as error:
        return error


def _note_reachable(desired, reachable):
    """Remembers which depots answered, for the listing."""
    def noted(depots):
        return [depot | {"reachable": reachable.get(depot["name"], depot["reachable"])} for depot in depots]

    if noted(desired.depots()) != desired.depots():
        with desired.locked():
            desired.set_depots(noted(desired.depots()))
