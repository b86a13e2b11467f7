#pragma once

#include "lifecycle/task_file.h"

namespace LifeCycle {

/// Fails the tasks that an earlier run of this process left unfinished and that nobody will ever
/// finish: those of its own threads with "com.tessel.ryx.task.aborted", and those of helpers that
/// are gone, which EarlierHelpers tells from those that outlived it and end their own records. The
/// task sync file is removed, whoever it names; the apply pid file unless its helper lives.
///
/// Called once at start-up, before requests are served. Records that cannot be written are logged;
/// of those the helpers' are tried again later.
/// @throws HostCtl::Lib::HostCtlException when a helper cannot be watched
void FailAbandonedTasks(TaskFile& file);

}  // namespace LifeCycle
