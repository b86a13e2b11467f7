#pragma once

#include <exception>
#include <string>
#include <utility>

#include "bindings/com/tessel/cis/task.h"
#include "taskdb/task_info.h"

namespace LifeCycle {

/// A record that does not make up a task.
class TaskInfoError : public std::exception {
 public:
  explicit TaskInfoError(std::string text) : text_(std::move(text)) {}
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// Tells a task record as clients of the tasks service see it. Callable from any thread.
/// @throws TaskInfoError
[[nodiscard]] Com::Tessel::Cis::Task::Info ToTaskInfo(const TaskDB::TaskInfo& record);

}  // namespace LifeCycle
