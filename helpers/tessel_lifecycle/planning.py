"""From a specification to the plan that brings the host to it, with what depots and the host's two images know."""

import contextlib

from tessel_lifecycle import overridden, spare, verify
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.fetch import TASK
from tessel_lifecycle.many_depots import ManyDepots
from tessel_lifecycle.plan import Plan
from tessel_lifecycle.resolve import resolve


def plan(task, image, installed, spec, depots, damaged, percent):
    """What it takes to get to a specification. When the host can tell that the spare image is it, no depot is asked.

    `damaged` is what was changed or lost of the installed image. Once the depots are read, the task is at `percent`.
    @throws ImageError
    """
    way_back = spare.find_readable(image)
    if way_back and spare.answers(way_back, installed, spec):
        with contextlib.suppress(ImageError):
            return way_back.plan(image, installed, verify.names(damaged))
    others = [way_back.image] if way_back and not depots else ()
    made = _Offer(task, installed, depots, percent, others).plan(spec, installed, damaged)
    if way_back and not made.is_done and made.content.outline() == way_back.content.outline():
        if not way_back.damaged:
            return Plan.switch(way_back.image, installed, verify.names(damaged))
        made.returns = True
    return made


class _Offer:
    """What the given depots describe together with the installed image, and the PAXs that the depots have.

    `others` are InstalledImages that are used where nothing else has what is wanted. When all is read, the task is at
    `percent`. `warnings` are Notes of those depots that are left out.
    """

    def __init__(self, task, installed, locations, percent, others=()):
        depots = ManyDepots(locations, TASK, on_progress=lambda fraction: task.progress(percent * fraction))
        depots.check_any()
        self.catalogue, self.warnings = depots.catalogue, depots.notes()
        self.paxs = dict(self.catalogue.paxs)
        known = installed.described()
        self.catalogue.add_missing(known)
        for other in others:
            self.catalogue.add_missing(other.described())
        for pax in installed.paxs.values():  # what is installed need not be brought again
            if self.catalogue.paxs[pax.key].identity == pax.identity:
                self.catalogue.paxs[pax.key] = pax
        overridden.offer_kept(self.catalogue, self.paxs)

    def plan(self, spec, installed, damaged):
        try:
            content = resolve(spec, self.catalogue)
        except ImageError as error:
            error.notes += self.warnings  # one of them may have what is missing
            raise
        content.specification, content.overridden = spec.document, overridden.collect(content, self.catalogue)
        plan = Plan(content, installed, self.paxs, verify.names(damaged))
        plan.warnings = self.warnings
        return plan
