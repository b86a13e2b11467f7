#include "lifecycle/startup.h"

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>

#include "lifecycle/earlier_helpers.h"
#include "lifecycle/host_claim.h"
#include "lifecycle/task_errors.h"
#include "software/command/json_value.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

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
  EarlierHelpers helpers;
  FreeHost(kTaskMarker);
  const auto sweep = [&](const std::string& id, TaskDB::Record& record,
                         TaskDB::Allocator& allocator) {
    if (TaskDB::IsFinished(record)) return false;
    const bool inProcess = RanInProcess(record);
    if (!inProcess && !helpers.HasGone(id, record)) return false;
    Log_Level(LogLevel::kError, "[%s]: Task %s did not outlive the daemon\n", "FailAbandonedTasks",
              id.c_str());
    if (!inProcess) {
      TaskDB::FailUnexplained()(record, allocator);
      return true;
    }
    // The tasks service tells of an ended task only when it knows its start, too.
    if (JsonDocument::TextOf(JsonDocument::FindMember(record, "status")) == "PENDING")
      TaskDB::Start(id)(record, allocator);
    fail(record, allocator);
    return true;
  };
  try {
    file.ChangeAll(sweep, kStatusFileRetries);
  } catch (const std::exception& e) {
    // A full disk is no reason not to serve: whoever makes room may need that.
    Log_Level(LogLevel::kCritical, "[%s]: Failed to end tasks: %s\n", "FailAbandonedTasks",
              e.what());
    helpers.ExpectEnds();
  }
  helpers.CleanUp();
}

}  // namespace LifeCycle
