"""The host's configuration, which the daemon's configuration service checks and applies."""

import contextlib

from tessel_lifecycle.daemon_client import Daemon, DaemonError, NoAnswer
from tessel_lifecycle.document import Fields, list_of, text
from tessel_lifecycle.errors import Note, TaskError
from tessel_lifecycle.plain_json import error_value, message, opened, option

_SERVICE = "com.tessel.ryx.kestrel_daemon.configuration"
_INVALID = "com.tessel.ryx.host_settings.cm.validation.error"
# What was checked is forgotten when the daemon is restarted or anybody checks another document, and the host may change
# between check and apply.
_OUTDATED = (f"{_SERVICE}.apply.invalid_specid.error", f"{_SERVICE}.apply.invalid_impact.error")
_APPLIES = 3


class DesiredConfiguration:
    """A document, JSON text, to be checked and then applied. Both tell progress as a percentage."""

    def __init__(self, document, daemon=None):
        self._document, self._daemon, self._spec_id = document, daemon or Daemon(), None

    def check(self, on_progress):
        """Has the document checked, which changes nothing. @throws TaskError"""
        with _answered(f"{_SERVICE}.check_apply.error"):
            result = self._daemon.run_task(_SERVICE, "check_apply$task", on_progress, document=self._document)
            fields = opened(result)[1]
            violations = fields.take("errors", list_of(lambda error: opened(error)[1]), [])
            self._spec_id = fields.take("spec_id", lambda value: option(value) and text(option(value)), None)
            if violations or self._spec_id is None:
                told = [(violation, violation.take("messages", list_of(Fields))) for violation in violations]
                places = [message(note) for violation, found in told for note in _places(violation, found)]
                raise DaemonError(error_value("error", message(TaskError(_INVALID)),
                                              *(m.value for _, found in told for m in found), *places))

    def apply(self, on_progress):
        """Applies what was checked last. Returns what the daemon tells of it, in plain JSON. @throws TaskError"""
        for left in reversed(range(_APPLIES)):
            with _answered(f"{_SERVICE}.apply.generic.error"):
                try:
                    result = self._daemon.run_task(_SERVICE, "apply$task", on_progress, spec_id=self._spec_id)
                    opened(result)
                    return result
                except DaemonError as error:
                    if error.identifier not in _OUTDATED or not left:
                        raise
            self.check(on_progress)


def _places(violation, messages):
    """Where a violation is, with the arguments that the daemon itself tells a place with."""
    path = violation.take("path", lambda value: option(value) and text(option(value)), None)
    if path and messages:
        told = opened(messages[0].value)[1]
        names = [name.replace("~1", "/").replace("~0", "~") for name in path.split("/")[1:]]
        address = [*names[1 if names[0] == "profile" else 2:], "", "", ""][:3]
        yield Note("com.tessel.ryx.settings.place", path, told.take("default_message", text), told.take("id", text),
                   *address, "")


@contextlib.contextmanager
def _answered(otherwise):
    """Tells as the failure `otherwise` that the daemon gave no answer, or none that can be understood."""
    try:
        yield
    except (NoAnswer, ValueError) as error:
        raise TaskError(otherwise, detail=error) from error
