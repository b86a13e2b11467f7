"""Which versions go together: compared with trying everything, in worlds that are small enough for it."""

from small_worlds import World
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.resolve import resolve
from tessel_lifecycle.solver import Solver

FIRST, WORLDS = 0, 400  # bench/solver compares many more


def compare(world, monkeypatch):
    """Compares the resolver with all contents; returns what comes of the world."""
    conflicts = []
    with monkeypatch.context() as context:
        find = Solver.conflict
        context.setattr(Solver, "conflict", lambda solver: conflicts.append(find(solver)) or conflicts[0])
        try:
            found = resolve(world.spec, world.catalogue).versions()
        except ImageError as error:
            found = None
            assert error.notes or not conflicts, error
    assert found == world.best()
    for facts in conflicts:
        assert not world.can_be(facts)
        assert all(world.can_be([other for other in facts if other is not fact]) for fact in facts)
    return found


def test_random_worlds_have_the_best_content_or_a_smallest_conflict(monkeypatch):
    solved = [compare(World(seed), monkeypatch) is not None for seed in range(FIRST, FIRST + WORLDS)]
    assert WORLDS / 10 < sum(solved) < WORLDS * 9 / 10
