"""Several depots as one: asked at the same time, and the living ones are enough as long as they have what is needed."""

import contextlib
import queue
import threading

from tessel_lifecycle import paths
from tessel_lifecycle.catalogue import KINDS, Catalogue
from tessel_lifecycle.depot import Depot
from tessel_lifecycle.errors import ImageError, Note
from tessel_lifecycle.location import has_credentials
from tessel_lifecycle.metadata_cache import MetadataCache

_AT_ONCE = 8
_STACK = 1 << 20  # bytes; what threads reserve counts against the memory that an inline command may use


class ManyDepots:
    """What depots describe together, the earlier ones first.

    `failures` tells by its place among the locations why a depot is left out: it could not be reached, or its index or
    metadata is broken or contradicts itself. That two depots contradict each other is an error.
    """

    def __init__(self, locations, patience, kinds=tuple(KINDS), on_progress=lambda fraction: None, names_only=False,
                 cache=MetadataCache(paths.METADATA)):
        """Asks all at once, so that dead ones cost their time-out only once. `on_progress` hears which part is read.

        @param names_only  whether names and versions are enough
        @throws ImageError when two depots contradict each other
        """
        self.catalogue, self.failures, self._locations = Catalogue(), {}, locations
        both = 2 * max(1, len(locations))

        def fetch(location, on_part):
            try:
                return Depot(location, patience, cache).fetch(on_part)
            except ImageError as error:
                return error

        fetched = _all_at_once(fetch, locations, lambda done: on_progress(done / both))
        for number, depot in enumerate(fetched):
            def on_part(fraction, number=number):
                on_progress((len(locations) + number + fraction) / both)
            try:
                if isinstance(depot, ImageError):
                    raise depot
                described = depot.read(kinds, on_part, names_only)
            except ImageError as error:
                self.failures[number] = error
            else:
                self.catalogue.add_all(described)

    def check_any(self):
        """Raises the first depot's ImageError when none could be read."""
        if self.failures and len(self.failures) == len(self._locations):
            raise self.failures[0]

    def notes(self):
        """Which depots are left out, and why."""
        told = []
        for number, error in sorted(self.failures.items()):
            location = self._locations[number]
            told.append(Note("DepotLeftOut", "(a URL with credentials)" if has_credentials(location) else location))
            told += error.messages()
        return told


def _all_at_once(work, items, on_progress):
    """What `work(item, on_part)` returns for each item; `on_progress` hears how many items are done, with parts of
    them, and is called in the caller's thread.

    The threads end with the process: who is told to end does not wait for a server.
    """
    if len(items) < 2:
        return [work(item, on_progress) for item in items]
    left, told = iter(list(enumerate(items))), queue.SimpleQueue()

    def take():
        for number, item in left:  # a step of this iterator is one for all threads
            try:
                told.put((number, None, work(item, lambda part, number=number: told.put((number, part, None)))))
            except BaseException as error:
                told.put((number, None, error))

    with _small_stacks():
        for _ in range(min(_AT_ONCE, len(items))):
            threading.Thread(target=take, daemon=True).start()
    parts, results = [0] * len(items), {}
    while len(results) < len(items):
        number, part, result = told.get()
        if part is None:
            if isinstance(result, BaseException) and not isinstance(result, ImageError):
                raise result
            results[number] = result
        parts[number] = 1 if part is None else part
        on_progress(sum(parts))
    return [result for _, result in sorted(results.items())]


@contextlib.contextmanager
def _small_stacks():
    before = threading.stack_size(_STACK)
    try:
        yield
    finally:
        threading.stack_size(before)
