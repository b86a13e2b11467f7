"""From a command line to the command.

A line is a noun, a verb written as an option, the verb's values, then options. Commands are named here as text and
imported when they are run, since the callers of inline commands wait for them.
"""

import os
import sys

from tessel_lifecycle import files, host_claim, paths

INLINE_LIMIT = 30  # seconds

_MOST_NOTES = 20

_REPEATED = ("--depot", "--component", "--name")


class Command:
    """`function` is MODULE:FUNCTION, `values` the number of values after the verb.

    An inline command ends with `bad_usage` when its line is not understood, with `failed` when something breaks, and
    with `late` when it takes more than `seconds`, or INLINE_LIMIT, which only depots and booting hosts do.
    A task has an `operation`, by which its record names it, and takes `required` options, --task-id and `optional`
    ones. `documents` are the input files that the daemon makes for it, whatever the line says; one whose path ends
    with "-" has the task's identifier behind it. `claim` is the one that the daemon makes for the task.
    """

    def __init__(self, function, values=0, required=(), operation="", bad_usage=1, failed=1, late=1, optional=(),
                 documents=(), claim=host_claim.TASK, seconds=None):
        self.function, self.values, self.operation = function, values, operation
        self.optional, self.documents, self.claim = optional, documents, claim
        self.required = (*required, "--task-id") if operation else required
        self.bad_usage, self.failed, self.late, self.seconds = bad_usage, failed, late, seconds

    def load(self):
        """The function itself."""
        from importlib import import_module
        module, _, name = self.function.partition(":")
        return getattr(import_module("tessel_lifecycle." + module), name)


_WITH_SPEC = {"required": ("--depot", "--software-spec"), "documents": (paths.TASK_DOCUMENT,)}
_DAEMON = "com.tessel.ryx.kestrel_daemon."

COMMANDS = {
    ("depots", "--list"): Command("depots:list_depots"),
    ("depots", "--create"): Command("depots:create", failed=81, late=83),
    ("depots", "--delete"): Command("depots:delete", 1),
    ("software", "--get"): Command("desired_software:get"),
    ("software", "--set"): Command("desired_software:set_spec", late=83),
    ("software_ryx", "--get"): Command("desired_software:get_base_image"),
    ("software_ryx", "--set"): Command("desired_software:set_base_image", 1, bad_usage=84, late=83),
    ("components", "--get"): Command("desired_software:get_component", 1),
    ("components", "--set"): Command("desired_software:set_component", 2, bad_usage=81, late=83),
    ("components", "--del"): Command("desired_software:delete_component", 1, failed=80),
    ("software", "--getsoftwareinfo"): Command("installed_software:software_info"),
    ("ryx", "--get"): Command("installed_software:base_image"),
    ("component", "--get"): Command("installed_software:component", 1),
    ("component", "--list"): Command("installed_software:components"),
    ("PAX", "--list-all"): Command("installed_software:packages"),
    ("PAX", "--list-orphan"): Command("installed_software:orphan_packages"),
    ("software", "--boot"): Command("boot:bring_up", seconds=300),
    ("software", "--boot-watch"): Command("boot:watch", seconds=600),
    ("software", "--scan"): Command("software_tasks:scan", operation=_DAEMON + "software.scan$task",
                                    required=_WITH_SPEC["required"], documents=(paths.SCAN_DOCUMENT,)),
    ("software", "--stage"): Command("software_tasks:software_stage", operation=_DAEMON + "software.stage$task",
                                     **_WITH_SPEC),
    ("software", "--apply"): Command("software_tasks:software_apply", operation=_DAEMON + "software.apply$task",
                                     **_WITH_SPEC),
    ("software", "--rollback"): Command("software_tasks:software_rollback",
                                        operation=_DAEMON + "software.rollback$task"),
    ("software", "--verify"): Command("software_tasks:software_verify", operation=_DAEMON + "software.verify$task"),
    ("components", "--apply"): Command("software_tasks:components_apply", operation=_DAEMON + "components.apply$task",
                                       required=("--depot", "--component")),
    ("solutions", "--apply"): Command("software_tasks:solutions_apply", operation=_DAEMON + "solutions.apply$task",
                                      **_WITH_SPEC),
    ("solutions", "--stage"): Command("software_tasks:solutions_stage", operation=_DAEMON + "solutions.stage$task",
                                      **_WITH_SPEC),
    ("solutions", "--remove"): Command("software_tasks:solutions_remove", operation=_DAEMON + "solutions.remove$task",
                                       required=("--name",)),
    ("depots", "--extract"): Command(
        "extract:extract_depot", operation="com.tessel.ryx.software.installed_image.extract_depot$task"),
}


def main(arguments):
    """Runs a command line, without the script's name. Returns the exit code."""
    files.make_state_private()
    command = COMMANDS.get(tuple(arguments[:2]))
    if command is None:
        print("usage: imagemanagerctl.py COMMAND, one of:", file=sys.stderr)
        for noun, verb in COMMANDS:
            print(f"  {noun} {verb}", file=sys.stderr)
        return 1
    return run_task(command, arguments[2:]) if command.operation else _run_inline(command, arguments[2:])


def _run_inline(command, words):
    """Runs a command whose caller waits; it ends itself when its time is over."""
    import signal

    limit = command.seconds or INLINE_LIMIT

    def too_long(*_):
        from tessel_lifecycle.errors import Note
        sys.stderr.write(f"given up after {limit} seconds\n")
        _tell_daemon([Note("com.tessel.ryx.host_settings.command.late", limit)])
        os._exit(command.late)

    signal.signal(signal.SIGALRM, too_long)
    signal.alarm(limit)
    if len(words) != command.values:
        return _refused_line(command, words)
    try:
        sys.stdout.write(command.load()({"values": words}))
        sys.stdout.flush()
        return 0
    except Exception as error:  # whatever it is, the caller is told by an exit code and people by a sentence
        from tessel_lifecycle.errors import Note
        text = str(error) or repr(error)
        print(text, file=sys.stderr)
        notes = getattr(error, "notes", None) or [Note("com.tessel.ryx.host_settings.command.reason", text[:1000])]
        _tell_daemon(notes)
        return getattr(error, "exit_code", command.failed)


def _refused_line(command, words):
    """A name with blanks in it comes as several words."""
    from tessel_lifecycle.errors import Note
    text = f"{command.values} values are taken, not {len(words)}"
    print(text, file=sys.stderr)
    _tell_daemon([Note("com.tessel.ryx.host_settings.command.words", " ".join(words)[:80])])
    return command.bad_usage


def _tell_daemon(notes):
    """What the daemon tells its client beside what the exit code says: a JSON text sequence (RFC 7464) on the standard
    error stream, which no person sees who runs the command."""
    from contextlib import suppress

    from tessel_lifecycle.document import compact
    with suppress(OSError):
        if not sys.stderr.isatty():
            told = [{"id": note.identifier, "args": note.arguments} for note in notes[:_MOST_NOTES]]
            sys.stderr.write("\x1e" + compact({"messages": told}) + "\n")
        sys.stderr.flush()


def run_task(command, words):
    """Runs a command that reports through the record of its task; a line that is not understood is reported there.

    `words` are those behind the verb. Returns the exit code.
    """
    from tessel_lifecycle.errors import INVALID_INPUT, TaskError, UsageError
    from tessel_lifecycle.guard import run
    from tessel_lifecycle.task import Task, is_task_id
    named = [words[i + 1] for i, word in enumerate(words[:-1]) if word == "--task-id" and is_task_id(words[i + 1])]
    if not named:
        print("--task-id ID is missing", file=sys.stderr)
        return 1
    task_id = command.claim.holder(named)
    documents = [path + task_id if path.endswith("-") else path for path in command.documents]
    task = Task(task_id, command.operation, documents, command.claim)
    try:
        options = _options(command, words)
    except UsageError as error:
        task.fail(TaskError(INVALID_INPUT))
        print(error, file=sys.stderr)
        return 1
    return run(task, lambda task: _work(command, task, options))


def _work(command, task, options):
    from tessel_lifecycle import leftovers
    leftovers.remove_extracts()
    return command.load()(task, options)


def _options(command, words):
    """The options of a task's line: name -> value, or name -> values for those that may be repeated."""
    from tessel_lifecycle.errors import UsageError
    options, rest = {}, iter(words)
    for word in rest:
        value = next(rest, None)
        if word not in (*command.required, *command.optional) or not value or value.startswith("--"):
            raise UsageError(f"not understood: {word}")
        if word in _REPEATED:
            options.setdefault(word, []).append(value)
        elif options.setdefault(word, value) is not value:
            raise UsageError(f"{word} is given twice")
    missing = [name for name in command.required if name not in options]
    if missing:
        raise UsageError(f"{missing[0]} is missing")
    return options
