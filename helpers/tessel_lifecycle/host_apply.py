"""The task that brings the host to a whole desired state: its image, its configuration, or both."""

from tessel_lifecycle import files, host_claim, leftovers, software_tasks
from tessel_lifecycle.document import Fields, list_of, parse, text
from tessel_lifecycle.errors import INVALID_INPUT, TaskError
from tessel_lifecycle.host_configuration import DesiredConfiguration
from tessel_lifecycle.plain_json import optional, structure
from tessel_lifecycle.spec import MOST_SPEC

_NO_INPUT = "com.tessel.ryx.apply.no.input"
_NO_DEPOTS = "com.tessel.ryx.apply.invalid.depots"
_NO_CONFIGURATION = "com.tessel.ryx.kestrel_daemon.configuration.parse.error"


class _Part:
    """A stretch of a task's progress, from `low` to `high` percent, given out as if it was a task of its own."""

    def __init__(self, task, low, high):
        self._task, self._low, self._span = task, low, high - low
        self.id, self.operation, self.commit = task.id, task.operation, task.commit

    def progress(self, percent):
        self._task.progress(self._low + self._span * percent / 100)


def apply(task, options):
    """Applies what the documents say. The configuration is checked first: one that is not valid changes nothing."""
    host_claim.APPLY.take_over(task.id)
    interval = options["--cleanup-interval"]
    if not (interval.isascii() and interval.isdecimal()):
        raise TaskError(INVALID_INPUT, detail=f"--cleanup-interval {interval}: not a number of seconds")
    has_image = False
    try:
        result = _apply(task, *_documents(options))
        has_image = "--image-doc" in options
        return result
    finally:
        leftovers.remove(int(interval), staged=has_image)


def _documents(options):
    """The configuration as a JSON text, the software specification and the depots; what is not given is None."""
    configuration = options.get("--config-doc") and _configuration(options["--config-doc"])
    depots = options.get("--depot-doc") and _depots(options["--depot-doc"])
    image = options.get("--image-doc") and software_tasks.spec_document(options["--image-doc"])
    if not configuration and not image:
        raise TaskError(_NO_INPUT, detail="neither --config-doc nor --image-doc is given")
    if image and not depots:
        raise TaskError(_NO_DEPOTS, detail="an image needs a depot")
    return configuration, image, depots


def _configuration(path):
    try:
        data = files.read_bounded(path, MOST_SPEC)
        Fields(parse(data))
        return data.decode()
    except (OSError, ValueError) as error:
        raise TaskError(_NO_CONFIGURATION, detail=error) from error


def _depots(path):
    try:
        return list_of(text)(parse(files.read_bounded(path, MOST_SPEC)))
    except (OSError, ValueError) as error:
        raise TaskError(INVALID_INPUT, detail=f"{path}: {error}") from error


def _apply(task, document, image, depots):
    checked = 10 if document else 0
    changed = 0 if not image else 70 if document else 100
    done = {"configuration": optional(None), "image": optional(None)}
    if document:
        configuration = DesiredConfiguration(document)
        configuration.check(_Part(task, 0, checked).progress)
    if image:
        done["image"] = optional(software_tasks.apply_spec(_Part(task, checked, changed), image, depots))
    if image and document:
        task.tell(_result(done), changed)  # whatever becomes of the configuration, the image is another one now
        task.reopen()
    if document:
        done["configuration"] = optional(configuration.apply(_Part(task, max(checked, changed), 100).progress))
    return _result(done)


def _result(done):
    return structure("ryx.hosts.settings.apply_result", **done)
