"""Having the host for one task: a file that names the task, there from the task's start to its end.

Whoever starts tasks looks and writes under the lock that is named after the file; the daemon does so for each task that
it starts. The words of the file are the identifier of the task and what its writer adds.
"""

import os

from tessel_lifecycle import files, paths


class HostClaim:
    """One kind of claim: its file, how many seconds to wait for its lock, and the failure to tell when another task has
    the host."""

    def __init__(self, file, patience, contention):
        self.file, self.patience, self.contention = file, patience, contention

    def words(self):
        """The words of the file; none when nobody has the host."""
        try:
            return files.read_bounded(self.file, 4096).decode().split()
        except (OSError, ValueError):
            return []

    def holder(self, candidates):
        """The one of several task identifiers that has the host, or the first."""
        words = self.words()
        return next((candidate for candidate in candidates if candidate in words), candidates[0])

    def take_over(self, task_id):
        """Has the file name this process and its task, for which the host was claimed. @throws TaskError, OSError"""
        from tessel_lifecycle.errors import TaskError
        from tessel_lifecycle.lock import LockTimeout, access_lock
        try:
            with access_lock(self.file, self.patience):
                words = self.words()
                if words and task_id not in words:
                    raise TaskError(self.contention, detail=f"{self.file} names another task")
                files.replace(self.file, f"{os.getpid()} {task_id}\n".encode())
        except LockTimeout as error:
            raise TaskError(self.contention, detail=error) from error

    def release(self, task_id):
        """Gives the host free if it is this task's."""
        if task_id in self.words():
            files.remove(self.file)


TASK = HostClaim(paths.TASK_SYNC, 0, "com.tessel.ryx.task.contention")
APPLY = HostClaim(paths.APPLY_PID, 5, "com.tessel.ryx.lifecycle.task.contention")
