#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "lifecycle/task_errors.h"

/// The host is mine: how a task gets the host to itself, and how it lets go.
///
/// A marker is a file; while it exists the host is claimed. It begins as "PRECURSOR: " and the
/// identifier of the task that it was made for; what runs the task may put other words, of which
/// one is still the identifier. Every process that claims follows one protocol: find the lock named
/// after the marker free, let go of it, find no marker, write it.
///
/// Callable from any thread. Of threads of this process that claim at once exactly one gets the
/// host: they take turns, under a mutex that is not held while one waits to try again.
namespace LifeCycle {

/// A marker, and how claiming goes by it. In the log texts "{1}" stands for the task's identifier,
/// "{2}" for a reason and "{3}" for how many tries are left; nullptr says nothing.
struct HostMarker {
  const std::string& file;
  bool ofOwnTasks;  ///< tasks of this process's scheduler hold it: one about to go is awaited
  std::chrono::milliseconds pause;  ///< after each failed try
  const char* locked;               ///< another starter is at it at this moment
  const char* exists;
  const char* unknown;  ///< "{2}" why; without a text the try goes on, and writing tells why
  const char* unwritten;
  const char* refused;  ///< after whichever of the above
  const char* error;    ///< identifier of the message for who does not get the host
};

/// The task sync file: tasks of the daemon, its own and those of the image manager's helper.
extern const HostMarker kTaskMarker;
/// The apply pid file: the apply of a whole desired state, which has the daemon start tasks of its
/// own and so leaves the task sync file alone.
extern const HostMarker kApplyMarker;

/// Claims the host for a task: at once, and then `retries` times, each after the marker's pause,
/// which the last failed try is followed by, too. When the process stops it is not tried again.
/// @param retries  below 0 there is no try at all
/// @return empty when the marker names the task; otherwise `not_allowed_in_current_state`
[[nodiscard]] TaskError ClaimHost(const HostMarker& marker, const std::string& taskId, int retries);

/// @return the words of a marker, of which one is the identifier of the task that has the host;
///         none when there is no marker
[[nodiscard]] std::vector<std::string> ClaimWords(const HostMarker& marker);

/// @return whether the marker names the task
[[nodiscard]] bool HasHost(const HostMarker& marker, const std::string& taskId);

/// Lets go of the host, if the marker names the task.
/// @return 0 or the system's error number; ENOENT when the host is not the task's
int ReleaseHost(const HostMarker& marker, const std::string& taskId);

/// Frees the host whoever has it: at start-up, when nobody can.
void FreeHost(const HostMarker& marker);

}  // namespace LifeCycle
