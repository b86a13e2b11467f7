#include "software/helper_task.h"

#include <utility>

#include "lifecycle/complete_operation.h"
#include "lifecycle/task_creation.h"
#include "orbi/data/message.h"
#include "software/command/remove_files.h"

namespace LifeCycle {

std::string NewTaskId(const TaskOperation& operation) {
  TaskError error;
  std::string id = GetTaskId(error, operation.errors);
  if (error) throw OperationError(*error);
  return id;
}

void StartHelperTask(const Orbi::Core::ExecutionContext& context, const TaskOperation& operation,
                     const std::string& id, const std::vector<std::string>& more,
                     const std::vector<std::string>& files, const std::function<void()>& write) {
  std::vector<std::string> arguments{id};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const std::string command =
      operation.helper.command + Orbi::Data::FillPlaceholders(operation.arguments, arguments);
  bool written = !write;
  const auto prepare = [&write, &written] {
    if (write) write();
    written = true;
  };
  const TaskError error = RunTask(
      operation.helper.kind,
      {id, command, files, operation.errors, operation.helper.retries, CallerOf(context), prepare});
  if (!error) return;
  if (written) RemoveFiles(files);
  throw OperationError(*error);
}

}  // namespace LifeCycle
