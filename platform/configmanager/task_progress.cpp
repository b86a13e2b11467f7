#include "configmanager/task_progress.h"

#include "configmanager/exceptions.h"

namespace RyxConfigManager {

void ThrowIfAborted(const TaskInput* task) {
  if (task != nullptr && task->isAbortRequested && task->isAbortRequested()) throw Aborted();
}

TaskProgress::TaskProgress(const TaskInput* task) : task_(task) {
  if (task == nullptr) return;
  from_ = task->progressFrom;
  to_ = task->progressTo;
}

TaskProgress TaskProgress::Share(unsigned from, unsigned to) const {
  const auto at = [this](unsigned share) { return from_ + (to_ - from_) * share / 100; };
  return {task_, at(from), at(to)};
}

void TaskProgress::Report(std::size_t done, std::size_t total) const {
  if (task_ != nullptr && task_->reportProgress && total > 0) {
    const double part = static_cast<double>(done) / static_cast<double>(total);
    task_->reportProgress(static_cast<unsigned>(from_ + (to_ - from_) * part));
  }
  ThrowIfAborted(task_);
}

}  // namespace RyxConfigManager
