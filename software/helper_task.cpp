#include "software/helper_task.h"

#include <utility>

#include "lifecycle/complete_operation.h"
#include "lifecycle/task_creation.h"
#include "orbi/data/message.h"
#include "software/command/remove_files.h"

namespace LifeCycle {
namespace {

constexpr const char* kTaskHelper =
    "/usr/bin/python ++group=kestreld-task-forks,mem=250,stats "
    "/usr/lib/tessel/lifecycle/bin/imagemanagerctl.py ";

/// How often the start is tried again, a second later each time.
constexpr int kRetries = 2;

}  // namespace

std::string NewTaskId(const TaskOperation& operation) {
  TaskError error;
  std::string id = GetTaskId(error, operation.errors);
  if (error) throw OperationError(*error);
  return id;
}

void StartHelperTask(const TaskOperation& operation, const std::string& id,
                     const std::vector<std::string>& more, const std::vector<std::string>& files) {
  std::vector<std::string> arguments{id};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const std::string command =
      kTaskHelper + Orbi::Data::FillPlaceholders(operation.arguments, arguments);

  TaskError error;
  RunTask(command, id, error, operation.errors, kRetries, files);
  if (!error) return;
  RemoveFiles(files);
  throw OperationError(*error);
}

}  // namespace LifeCycle
