#pragma once

#include <string>

/// The files of the task framework, at their fixed places.
namespace LifeCycle {

/// The records of all tasks. Changed only under the access lock named after it.
inline const std::string kTaskStatusFile = "/var/tessel/lifecycle/task-status.json";

/// Exists while a task is being started or runs; no other task may start meanwhile.
inline const std::string kTaskSyncFile = "/var/tessel/lifecycle/lifecycle.task";

}  // namespace LifeCycle
