#pragma once

#include <string>
#include <vector>

#include "lifecycle/task_errors.h"

/// Starting the image manager on a task of its own. The functions throw OperationError with the
/// error of the task framework, and can be called from several threads at once.
namespace LifeCycle {

/// An operation that starts a helper task.
struct TaskOperation {
  const char* name;  ///< in log lines
  /// What stands behind the script's path and one blank. "{1}" stands for the task's identifier,
  /// "{2}" and up for what the operation adds.
  const char* arguments;
  /// What goes wrong before the helper runs becomes.
  ErrorKind errors = ErrorKind::kInternalServerError;
};

[[nodiscard]] std::string NewTaskId(const TaskOperation& operation);

/// Records the task and starts its helper. Blocks for up to three seconds while another task is
/// being started or runs, and for up to two while the helper cannot be started.
/// @param more  the arguments for "{2}" and up, each with its leading blank when it has one
/// @param files  documents for the helper; they are removed when it cannot be started, and are its
///               own otherwise
void StartHelperTask(const TaskOperation& operation, const std::string& id,
                     const std::vector<std::string>& more = {},
                     const std::vector<std::string>& files = {});

}  // namespace LifeCycle
