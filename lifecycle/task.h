#pragma once

#include <string>

namespace LifeCycle {

/// A task that this process runs: what the scheduler drives on a thread of its own, in the order
/// preRun, run, postRun.
class Task {
 public:
  /// Prepares the task.
  virtual void preRun() = 0;
  /// Does the work.
  virtual void run() = 0;
  /// Records the outcome.
  virtual void postRun() = 0;
  /// Whether the task has been asked to end early. From any thread.
  [[nodiscard]] virtual bool isAbortRequested() const = 0;
  /// Asks the task to end early. From any thread; returns at once.
  virtual void requestAbort() = 0;
  /// Records the task as aborted. From any thread; never throws.
  virtual void abort() = 0;
  /// Names the task in log lines.
  [[nodiscard]] virtual std::string label() const = 0;

  virtual ~Task() = default;
};

}  // namespace LifeCycle
