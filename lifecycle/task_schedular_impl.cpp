#include "lifecycle/task_schedular_impl.h"

#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include "tesselibs/log.h"
#include "tesselibs/signals_blocked.h"

namespace LifeCycle {
namespace {

/// How long a task may take to record its outcome and go before others do not wait for it.
constexpr std::chrono::seconds kEndingWait{1};

/// Starts a thread that no signal of the process is delivered to.
template <typename Work>
std::thread StartThread(Work work) {
  const SignalsBlocked blocked;
  return std::thread(std::move(work));
}

}  // namespace

TaskSchedular& TaskSchedular::Instance() {
  static TaskSchedularImpl instance;
  return instance;
}

TaskSchedularImpl::~TaskSchedularImpl() {
  if (scheduler_.joinable()) abort();
}

int TaskSchedularImpl::initialise() {
  Lock lock(mutex_);
  bool running = !stopRequested_;
  if (running && state_ == State::kNotStarted && !scheduler_.joinable()) {
    try {
      scheduler_ = StartThread([this] { Schedule(); });
    } catch (const std::system_error&) {
      running = false;
    }
  }
  if (!running) {
    Log_Level(LogLevel::kCritical, "TaskSchedular failed to initialize.\n");
    return 1;
  }
  // A task that comes right after this finds the scheduler idle.
  changed_.wait(lock, [this] { return state_ != State::kNotStarted; });
  return 0;
}

void TaskSchedularImpl::abort() {
  Log_Level(LogLevel::kNotice, "TaskSchedular abort requested.\n");
  {
    const Lock lock(mutex_);
    stopRequested_ = true;
    changed_.notify_all();
  }
  if (scheduler_.joinable()) scheduler_.join();
}

int TaskSchedularImpl::submit(std::shared_ptr<Task> task) {
  Log_Level(LogLevel::kNotice, "TaskSchedular received new task: %s\n", task->label().c_str());
  const Lock lock(mutex_);
  if (state_ != State::kIdle || stopRequested_) {
    Log_Level(LogLevel::kCritical,
              "TaskSchedular in state=%d, stopped=%d, doesn't accept requests\n",
              static_cast<int>(state_), static_cast<int>(stopRequested_));
    return 2;
  }
  task_ = std::move(task);
  state_ = State::kSubmitted;
  changed_.notify_all();
  return 0;
}

void TaskSchedularImpl::awaitEnding() {
  Lock lock(mutex_);
  (void)changed_.wait_for(lock, kEndingWait, [this] { return !ending_; });
}

void TaskSchedularImpl::Schedule() {
  Lock lock(mutex_);
  state_ = State::kIdle;
  changed_.notify_all();
  Log_Level(LogLevel::kNotice, "TaskSchedular started.\n");
  while (true) {
    changed_.wait(lock, [this] {
      return state_ == State::kFinished || state_ == State::kSubmitted || stopRequested_;
    });
    if (state_ == State::kFinished) Complete();
    if (stopRequested_) break;
    if (state_ == State::kSubmitted) Dispatch();
  }
  Log_Level(LogLevel::kNotice, "TaskSchedular stopped.\n");
  EndTask(lock);
}

void TaskSchedularImpl::Dispatch() {
  try {
    worker_ = StartThread([this, task = task_] { Work(*task); });
  } catch (const std::system_error& e) {
    Log_Level(LogLevel::kCritical, "Task: %s failed to run: %s\n", task_->label().c_str(),
              e.what());
    task_->abort();
    task_.reset();
    state_ = State::kIdle;
    return;
  }
  state_ = State::kDispatched;
  Log_Level(LogLevel::kNotice, "Task dispatched: %s\n", task_->label().c_str());
}

void TaskSchedularImpl::Complete() {
  worker_.join();
  Log_Level(LogLevel::kNotice, "Task completed: %s\n", task_->label().c_str());
  task_.reset();
  state_ = State::kIdle;
  ending_ = false;
  changed_.notify_all();
}

void TaskSchedularImpl::EndTask(Lock& lock) {
  if (state_ == State::kIdle) return;
  const std::string label = task_->label();
  if (state_ == State::kSubmitted)
    Log_Level(LogLevel::kNotice, "Skip task=%s in state=%d\n", label.c_str(),
              static_cast<int>(state_));
  if (state_ == State::kDispatched) {
    Log_Level(LogLevel::kNotice, "Abort task requested: %s\n", label.c_str());
    task_->requestAbort();
    const auto deadline = std::chrono::system_clock::now() + abortWait_;
    if (!changed_.wait_until(lock, deadline, [this] { return state_ == State::kFinished; })) {
      Log_Level(LogLevel::kCritical, "Task did not respond to abort request: %s\n", label.c_str());
      aborted_ = true;
      task_->abort();
      Log_Level(LogLevel::kCritical, "Task aborted: %s\n", label.c_str());
    }
  }
  // The worker may still be at work in what this process is about to take down.
  lock.unlock();
  if (worker_.joinable()) worker_.join();
  lock.lock();
  task_.reset();
}

void TaskSchedularImpl::Work(Task& task) {
  try {
    task.preRun();
    if (AbortIfStopping(task)) {
      Log_Level(LogLevel::kCritical, "Worker aborting task before Run(): %s\n",
                task.label().c_str());
      return;
    }
    task.run();
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "Task: %s failed to run: %s\n", task.label().c_str(), e.what());
  }
  if (AbortIfStopping(task)) {
    Log_Level(LogLevel::kCritical, "Worker aborting task after Run(): %s\n", task.label().c_str());
    return;
  }
  SetEnding();
  try {
    task.postRun();
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "PostRun script failed to run: %s\n", e.what());
  }
  SetState(State::kFinished);
}

bool TaskSchedularImpl::AbortIfStopping(Task& task) {
  bool recorded = false;
  {
    const Lock lock(mutex_);
    if (!stopRequested_) return false;
    recorded = aborted_;
  }
  if (!recorded) task.abort();
  SetState(State::kFinished);
  return true;
}

void TaskSchedularImpl::SetEnding() {
  const Lock lock(mutex_);
  ending_ = true;
}

void TaskSchedularImpl::SetState(State state) {
  const Lock lock(mutex_);
  state_ = state;
  changed_.notify_all();
}

}  // namespace LifeCycle
