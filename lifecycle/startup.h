#pragma once

#include "lifecycle/task_file.h"

namespace LifeCycle {

/// Fails the tasks that an earlier run of this process left unfinished, with
/// "com.tessel.ryx.task.aborted": no thread will ever finish them. Tasks of helper processes are
/// left alone, since a helper outlives the daemon and ends its own record; but the one that holds
/// the host fails when its helper is gone. The task sync file is removed, whoever it names.
///
/// Called once at start-up, before requests are served.
/// @throws what TaskFile's operations throw
void FailAbandonedTasks(TaskFile& file);

}  // namespace LifeCycle
