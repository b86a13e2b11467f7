#pragma once

#include <memory>
#include <string>
#include <utility>

#include "lifecycle/task_creation.h"
#include "lifecycle/task_schedular.h"
#include "orbi/bindings/async_result.h"
#include "tesselibs/log.h"

namespace LifeCycle {

/// Records a task that this process runs, hands it to the scheduler and completes the call with its
/// identifier, or with the error that kept it from being recorded.
///
/// A scheduler that does not take the task leaves the caller with the identifier all the same.
/// @tparam TaskType  constructed from the task's identifier and `arguments`
/// @param context    of the call
/// @param method     what the task is recorded as
template <typename TaskType, typename... Arguments>
void StartTask(const Orbi::Core::ExecutionContextPtr& context, const char* operation,
               const char* method, Orbi::Core::AsyncResult<std::string>& result,
               Arguments&&... arguments) {
  TaskError error;
  const std::string id = InitTask(method, CallerOf(*context), error, ErrorKind::kError);
  if (error) {
    Log_Level(LogLevel::kCritical, "[%s] Failed to get TaskId\n", operation);
    return result.SetError(*error);
  }
  (void)TaskSchedular::Instance().submit(
      std::make_shared<TaskType>(id, std::forward<Arguments>(arguments)...));
  result.SetResult(id);
}

}  // namespace LifeCycle
