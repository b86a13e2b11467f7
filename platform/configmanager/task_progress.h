#pragma once

#include <cstddef>

#include "configmanager/task_input.h"

namespace RyxConfigManager {

/// @param task  may be nullptr
/// @throws Aborted  the task is to end
void ThrowIfAborted(const TaskInput* task);

/// A part of the work done for a task, which takes a share of the task's progress. Used by the
/// thread that works for the task.
class TaskProgress {
 public:
  /// All of the library's share. @param task  may be nullptr
  explicit TaskProgress(const TaskInput* task);

  /// A share of this one, in hundredths of it.
  [[nodiscard]] TaskProgress Share(unsigned from, unsigned to) const;

  /// Reports that `done` of `total` equal steps are done, then sees whether the task is to end.
  /// @throws Aborted
  void Report(std::size_t done, std::size_t total) const;

  [[nodiscard]] const TaskInput* task() const { return task_; }

 private:
  TaskProgress(const TaskInput* task, double from, double to) : task_(task), from_(from), to_(to) {}

  const TaskInput* task_;
  double from_ = 0;  ///< percent of the task
  double to_ = 0;
};

}  // namespace RyxConfigManager
