#pragma once

#include <string>
#include <vector>

#include "lifecycle/task_errors.h"

/// Starting a task: a fresh identifier, the host to itself, a record.
///
/// Only one task may be started or run on the host at a time. While the task sync file exists none
/// other starts; it holds "PRECURSOR: " and the identifier of the task that it was made for, and
/// goes when that task ends. Other processes that start tasks follow the same protocol: find the
/// lock named after the sync file free, find no sync file, write it.
///
/// Nothing here throws for a failure: it is left in `error`. Callable from any thread; waits are
/// sleeps of one second on the caller's.
namespace LifeCycle {

/// @return a new task's identifier, a random UUID in text; empty when `error` is set to
///         "com.tessel.ryx.task.uuid.error"
[[nodiscard]] std::string GetTaskId(TaskError& error, ErrorKind kind);

/// Tries to win the host for a task: at once, and then `retries` times, each after a second.
/// @param retries  below 0 there is no attempt at all
/// @return whether the task must not start; `error` is then set to
/// "com.tessel.ryx.task.contention".
///         Otherwise the sync file names the task.
[[nodiscard]] bool CheckTaskContention(const std::string& taskId, TaskError& error, int retries);

/// Makes a task that this process itself runs. It is recorded as PENDING, and the sync file is its
/// own until whoever runs it removes that.
/// @param operation  recorded as the task's operation
/// @return the task's identifier; empty when `error` is set, and then no sync file is left
[[nodiscard]] std::string InitTask(const std::string& operation, TaskError& error, ErrorKind kind);

/// Makes a task that a helper command runs, and starts the command as a detached process. The task
/// gets an empty record, which the command fills, as it is the command that removes the sync file.
/// When the command is gone without having done so, the task is ended for it (see EndOfHelper).
/// @param taskId  from GetTaskId
/// @param error    when it is set no sync file is left; a record that was made stays
/// @param retries  of winning the host, and again of starting the command
/// @param documents  the command's own input files, which it removes
void RunTask(const std::string& command, const std::string& taskId, TaskError& error,
             ErrorKind kind, int retries, const std::vector<std::string>& documents = {});

}  // namespace LifeCycle
