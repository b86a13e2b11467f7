#pragma once

#include <functional>
#include <string>

#include "lifecycle/host_claim.h"
#include "lifecycle/task_errors.h"
#include "lifecycle/task_file.h"
#include "orbi/core/execution_context.h"
#include "taskdb/task_record.h"

/// Making a task: a fresh identifier, and the record of a task that has the host. A task that a
/// helper command carries out is started with helper_start.h.
///
/// Nothing here throws for a failure. Callable from any thread; waits are on the caller's.
namespace LifeCycle {

using TaskDB::Caller;

/// @return whoever makes the call
[[nodiscard]] Caller CallerOf(const Orbi::Core::ExecutionContext& context);

/// @return a new task's identifier, a random UUID in text; empty when `error` is set to
///         "com.tessel.ryx.task.uuid.error"
[[nodiscard]] std::string GetTaskId(TaskError& error, ErrorKind kind);

/// How the recording of a task is told: "{1}" stands for its identifier, "{2}" for a reason.
struct RecordTexts {
  const char* creating;
  const char* failed;
  const char* error;  ///< identifier of the message for a task that cannot be recorded
};

/// Records a task that has the host.
/// @param add  adds the record
/// @return empty when it is recorded; with an error the host is free again
[[nodiscard]] TaskError RecordTask(const HostMarker& marker, const std::string& taskId,
                                   const RecordTexts& texts, ErrorKind kind,
                                   const std::function<void(TaskFile&)>& add);

/// Makes a task that this process itself runs: claims the host in one try and records the task as
/// PENDING. Whoever runs it lets go of the host.
/// @param operation  recorded as the task's operation
/// @param caller     recorded as whom it runs for
/// @return the task's identifier; empty when `error` is set, and then the host is not claimed
[[nodiscard]] std::string InitTask(const std::string& operation, const Caller& caller,
                                   TaskError& error, ErrorKind kind);

}  // namespace LifeCycle
