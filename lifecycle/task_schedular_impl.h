#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "lifecycle/task_schedular.h"

namespace LifeCycle {

/// The scheduler: one thread that watches over one task and its worker thread. All that threads
/// share is guarded by one mutex, which is not held while a task works; `worker_` is the scheduler
/// thread's alone, and `scheduler_` that of whoever initialises and aborts.
class TaskSchedularImpl final : public TaskSchedular {
 public:
  /// @param abortWait  how long a running task has to answer a request to end
  explicit TaskSchedularImpl(std::chrono::milliseconds abortWait = std::chrono::seconds(5))
      : abortWait_(abortWait) {}
  TaskSchedularImpl(const TaskSchedularImpl&) = delete;
  TaskSchedularImpl& operator=(const TaskSchedularImpl&) = delete;
  ~TaskSchedularImpl() override;

  int initialise() override;
  void abort() override;
  int submit(std::shared_ptr<Task> task) override;
  void awaitEnding() override;

 private:
  enum class State : std::int32_t { kNotStarted, kIdle, kSubmitted, kDispatched, kFinished };
  using Lock = std::unique_lock<std::mutex>;

  // The scheduler thread; all with the mutex held.
  void Schedule();
  void Dispatch();
  void Complete();
  void EndTask(Lock& lock);

  // The worker thread, without it.
  void Work(Task& task);
  [[nodiscard]] bool AbortIfStopping(Task& task);
  void SetState(State state);
  void SetEnding();

  const std::chrono::milliseconds abortWait_;
  std::shared_ptr<Task> task_;  ///< empty while idle
  std::thread worker_;
  std::thread scheduler_;
  std::mutex mutex_;  ///< guards the task and what follows
  std::condition_variable changed_;
  State state_ = State::kNotStarted;
  bool stopRequested_ = false;
  bool ending_ = false;   ///< the task is about to record its outcome, or has
  bool aborted_ = false;  ///< the scheduler recorded the task as aborted, nobody else is to
};

}  // namespace LifeCycle
