#include "lifecycle/startup.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "lifecycle/helper_end.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_errors.h"
#include "software/command/remove_files.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

constexpr int kLockRetries = 5;

/// The services whose tasks run on a thread of this process.
constexpr std::string_view kInProcessServices[] = {
    "com.tessel.ryx.kestrel_daemon.configuration.",
    "com.tessel.ryx.configuration.components.groups.keys.",
};

bool RanInProcess(const TaskDB::Record& record) {
  const auto operation = JsonDocument::TextOf(JsonDocument::FindMember(record, "operation"));
  return std::ranges::any_of(kInProcessServices, [operation](std::string_view service) {
    return operation.starts_with(service);
  });
}

}  // namespace

void FailAbandonedTasks(TaskFile& file) {
  const TaskError aborted = MakeError("com.tessel.ryx.task.aborted", ErrorKind::kError);
  const TaskDB::RecordEdit fail = TaskDB::Fail(ValueToTypedJson(*aborted));
  const std::vector<std::string> holder = MarkerWords(kTaskSyncFile);
  RemoveFiles({kTaskSyncFile});
  const auto helper_is_gone = [&holder](const std::string& id) {
    return std::ranges::count(holder, id) != 0 && !HelperLives(id);
  };
  const auto sweep = [&](const std::string& id, TaskDB::Record& record,
                         TaskDB::Allocator& allocator) {
    const bool in_process = RanInProcess(record);
    if (TaskDB::IsFinished(record) || !(in_process || helper_is_gone(id))) return false;
    Log_Level(3, "[%s]: Task %s did not outlive the daemon\n", "FailAbandonedTasks", id.c_str());
    if (!in_process) {
      TaskDB::FailUnexplained()(record, allocator);
      return true;
    }
    // The tasks service tells of an ended task only when it knows its start, too.
    if (JsonDocument::TextOf(JsonDocument::FindMember(record, "status")) == "PENDING")
      TaskDB::Start(id)(record, allocator);
    fail(record, allocator);
    return true;
  };
  file.ChangeAll(sweep, kLockRetries);
}

}  // namespace LifeCycle
