"""The way back: the bank that ran before, whole, and how to know that it is what somebody asks for."""

from tessel_lifecycle import overridden, verify
from tessel_lifecycle.build import Build
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.plan import Plan
from tessel_lifecycle.resolve import resolve


class Spare:
    """The spare bank: `image` is what it holds, `damaged` what was changed or lost of that."""

    def __init__(self, image):
        self.image, self.damaged = image, verify.find_damage(image)

    @property
    def content(self):
        return self.image.content

    def plan(self, image, installed, damaged):
        """The Plan for getting to what it holds, without a depot: a switch to it, or where it is damaged, building it
        anew of kept packages. @throws ImageError when these do not suffice

        @param damaged  names of the installed packages that are not whole
        """
        if not self.damaged:
            return Plan.switch(self.image, installed, damaged)
        kept = {}
        for known in (self.image, installed):
            overridden.offer_kept(known.catalogue(), kept)
        plan = Plan(self.content, installed, kept, damaged)
        if Build(image, plan).missing:
            raise _unusable(verify.notes(self.damaged))
        plan.returns = True
        return plan


def find(image):
    """The Spare of an Image, None when there is none. @throws ImageError when it cannot be read"""
    bank = image.spare()
    try:
        return Spare(image.read(bank)) if bank else None
    except ImageError as error:
        raise _unusable(error.messages()) from error


def _unusable(notes):
    return ImageError("StatelessError", notes=[Note("SpareImageDamaged"), *notes])


def warnings(image):
    """Notes on a spare image that cannot be switched to as it is."""
    try:
        found = find(image)
        return [Note("SpareImageDamaged"), *verify.notes(found.damaged)] if found and found.damaged else []
    except ImageError as error:
        return error.notes


def find_readable(image):
    """The Spare of an Image, None also when it cannot be read."""
    try:
        return find(image)
    except ImageError:
        return None


def answers(spare, installed, spec):
    """Whether a specification wants what a Spare holds, as far as the host can tell without a depot.

    It cannot for a component in the newest version. Solutions of the specification that once led to the spare are what
    they were found to be then.
    """
    if None in spec.components.values() or spare.content.outline() == installed.content.outline():
        return False
    if _normal(spec.document) == _normal(installed.content.specification):
        return False
    return _normal(spec.document) == _normal(spare.content.specification) or _resolves_to(spare, installed, spec)


def _resolves_to(spare, installed, spec):
    catalogue = spare.image.catalogue()
    try:
        catalogue.add_missing(installed.catalogue())
        return resolve(spec, catalogue).outline() == spare.content.outline()
    except ImageError:
        return False


def _normal(value):
    """A JSON value without members that say nothing."""
    if isinstance(value, dict):
        members = {name: _normal(member) for name, member in value.items()}
        return {name: member for name, member in members.items() if member not in (None, {}, [])}
    return value
