#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lifecycle/helper_start.h"
#include "lifecycle/task_errors.h"

/// Starting a helper on a task of its own. The functions throw OperationError with the error of the
/// task framework, and can be called from several threads at once.
namespace LifeCycle {

/// A helper that carries out tasks.
struct TaskHelper {
  const char* command;  ///< the program, and the words that stand before an operation's arguments
  const HelperKind& kind;
  int retries;  ///< how often the start is tried again
};

inline constexpr TaskHelper kImageManager{
    "/usr/bin/python ++group=kestreld-task-forks,mem=250,stats "
    "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py ",
    kImageManagerTask, 2};

/// An operation that starts a helper task.
struct TaskOperation {
  const char* name;  ///< in log lines
  /// What stands behind the helper's command. "{1}" stands for the task's identifier, "{2}" and up
  /// for what the operation adds.
  const char* arguments;
  /// What goes wrong before the helper runs becomes.
  ErrorKind errors = ErrorKind::kInternalServerError;
  const TaskHelper& helper = kImageManager;
};

[[nodiscard]] std::string NewTaskId(const TaskOperation& operation);

/// Records the task and starts its helper. With the image manager it blocks for up to three seconds
/// while another task is being started or runs, and for up to two while the helper cannot be
/// started.
/// @param context  of the call
/// @param more  the arguments for "{2}" and up, each with its leading blank when it has one
/// @param files  documents for the helper; they are removed when it cannot be started, and are its
///               own otherwise
/// @param write  writes the files once the host is the task's, where their paths are not: until
///               then they are another task's. Without it they are there already.
void StartHelperTask(const Orbi::Core::ExecutionContext& context, const TaskOperation& operation,
                     const std::string& id, const std::vector<std::string>& more = {},
                     const std::vector<std::string>& files = {},
                     const std::function<void()>& write = {});

}  // namespace LifeCycle
