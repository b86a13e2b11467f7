#pragma once

#include <functional>
#include <string>

namespace RyxConfigManager {

/// The task on whose behalf the library works. Its functions are called on the thread that called
/// the library, and must not throw.
struct TaskInput {
  std::string taskId;
  unsigned progressFrom = 0;  ///< percent of the task when the library begins
  unsigned progressTo = 100;  ///< percent of the task when the library is done
  /// Takes the task's progress as work completes: growing percents between the two above.
  std::function<void(unsigned percent)> reportProgress;
  /// Whether the task is to end early; asked often, from the thread of the task.
  std::function<bool()> isAbortRequested;
};

}  // namespace RyxConfigManager
