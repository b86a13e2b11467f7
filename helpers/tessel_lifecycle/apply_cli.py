"""The command line of lifecyclectl.py."""

import sys

from tessel_lifecycle import files, host_claim, paths
from tessel_lifecycle.cli import Command, run_task

COMMAND = Command("host_apply:apply", required=("--cleanup-interval",),
                  optional=("--depot-doc", "--config-doc", "--image-doc"), claim=host_claim.APPLY,
                  documents=(paths.DEPOTS_DOCUMENT, paths.CONFIGURATION_DOCUMENT, paths.IMAGE_DOCUMENT),
                  operation="com.tessel.ryx.hosts.settings.set$task")


def main(arguments):
    """Runs a command line, without the script's name. Returns the exit code."""
    files.make_state_private()
    if arguments[:1] == ["--apply"]:
        return run_task(COMMAND, arguments[1:])
    print("usage: lifecyclectl.py --apply --task-id ID --cleanup-interval SECONDS "
          "[--depot-doc FILE] [--config-doc FILE] [--image-doc FILE]", file=sys.stderr)
    return 1
