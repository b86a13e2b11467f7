#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lifecycle/host_claim.h"
#include "lifecycle/task_creation.h"
#include "lifecycle/task_errors.h"

/// Starting a task that a helper command carries out: the host claimed, an empty record, which the
/// command fills, and the command as a detached process, which lets go of the host in the end. When
/// the command is gone without having done so, the task is ended for it (see helper_end.h).
///
/// Callable from any thread. Waits on the caller's: the pauses of the claim, and a second between
/// two tries to start the command.
namespace LifeCycle {

/// One kind of helper task, and what tells of its start: in the log texts "{1}" stands for the
/// task's identifier, "{2}" for the command or the reason, "{3}" for how many tries are left.
struct HelperKind {
  const HostMarker& marker;
  RecordTexts recording;
  const char* starting;
  const char* refused;  ///< starting it told a number other than 0
  const char* failed;
  const char* startError;  ///< identifier of the message for a command that cannot be started
};

/// Tasks of the image manager.
extern const HelperKind kImageManagerTask;
/// The apply of a whole desired state.
extern const HelperKind kApplyTask;

struct HelperCommand {
  std::string taskId;                  ///< from GetTaskId
  std::string line;                    ///< the command line
  std::vector<std::string> documents;  ///< the command's own input files, which it removes
  ErrorKind errors;  ///< what becomes of a task that cannot be recorded, or the command not started
  int retries;       ///< of claiming the host, and again of starting the command
  Caller caller;     ///< told the command in its environment, as KESTRELD_USER and KESTRELD_PEER
  /// Done once the host is the task's, before it is recorded; may be empty. What it throws frees
  /// the host and is passed on.
  std::function<void()> prepare = {};
};

/// @return empty when the command runs. With an error the host is free again; a record that was
///         made stays, and the documents are the caller's.
[[nodiscard]] TaskError RunTask(const HelperKind& kind, const HelperCommand& command);

}  // namespace LifeCycle
