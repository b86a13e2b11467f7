#pragma once

#include <string>

/// The files of the task framework, at their fixed places.
namespace LifeCycle {

/// The records of all tasks. Changed only under the access lock named after it.
inline const std::string kTaskStatusFile = "/var/tessel/lifecycle/task-status.json";

/// Locked, name by name, by whoever holds access locks.
inline const std::string kLockFile = "/var/tessel/lifecycle/.locks";

/// Exists while a task is being started or runs; no other task may start meanwhile.
inline const std::string kTaskSyncFile = "/var/tessel/lifecycle/lifecycle.task";

/// Exists while the apply of a whole desired state is being started or runs; no other such apply
/// may start meanwhile. Leaves the task sync file alone.
inline const std::string kApplyPidFile = "/var/tessel/lifecycle/lifecycle.apply.pid";

/// Documents for helpers; behind each of these stands the identifier of its task.
inline const std::string kSpecDocument = "/var/tessel/lifecycle/swspec-";
inline const std::string kDepotsDocument = "/var/tessel/lifecycle/depots-";
inline const std::string kConfigurationDocument = "/var/tessel/lifecycle/config-";
inline const std::string kImageDocument = "/var/tessel/lifecycle/image-";

/// The document of a scan. There is one for all: that only one task can run keeps them apart.
inline const std::string kScanDocument = "/var/run/lifecycle.scan.swspec";

}  // namespace LifeCycle
