"""The host's fixed places. Nothing moves them."""

TASK_STATUS = "/var/tessel/lifecycle/task-status.json"
TASK_DATABASE = TASK_STATUS + ".db"
TASK_SYNC = "/var/tessel/lifecycle/lifecycle.task"
TASK_DOCUMENT = "/var/tessel/lifecycle/swspec-"  # and the task's identifier
SCAN_DOCUMENT = "/var/run/lifecycle.scan.swspec"
DESIRED = "/var/tessel/lifecycle/desired"
REGISTERED_DEPOTS = DESIRED + "/depots.json"
IMAGE = "/var/tessel/lifecycle/image"
EXTRACTED_DEPOTS = "/var/tessel/lifecycle/extract"
FEATURE_STATES = "/etc/tessel/feature-states"
PREFERENCES = "/etc/tessel/preferences"
