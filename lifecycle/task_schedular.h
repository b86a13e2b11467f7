#pragma once

#include <memory>

#include "lifecycle/task.h"

namespace LifeCycle {

/// Runs the process's own tasks, one at a time, each on a thread of its own: a task is taken only
/// while none is there. Operations may be called from any thread, `abort` by one.
class TaskSchedular {
 public:
  /// The process's one scheduler, made on first use.
  [[nodiscard]] static TaskSchedular& Instance();

  /// Starts the scheduler's thread, once.
  /// @return 0, or 1 when there is no thread
  virtual int initialise() = 0;
  /// Ends the scheduler: a task that waits is skipped, one that runs is asked to end and given five
  /// seconds, and recorded as aborted when it did not. Returns when the scheduler's thread has
  /// ended.
  virtual void abort() = 0;
  /// Hands over a task.
  /// @return 0, or 2 when there already is one or the scheduler ends
  virtual int submit(std::shared_ptr<Task> task) = 0;
  /// Waits while a task records its outcome and goes, for at most a second: a client that has seen
  /// the end of its task finds the host free for the next one.
  virtual void awaitEnding() = 0;

 protected:
  virtual ~TaskSchedular() = default;
};

}  // namespace LifeCycle
