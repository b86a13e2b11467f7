#include "lifecycle/task_creation.h"

#include <exception>

#include "lifecycle/log_text.h"
#include "lifecycle/paths.h"
#include "tesselibs/log.h"
#include "tesselibs/uuid.h"

namespace LifeCycle {
namespace {

constexpr RecordTexts kOwnTask{.creating = "[InitTask]: Creating task: {1}",
                               .failed = "[InitTask]: Failed to create task {1}: {2}",
                               .error = "com.tessel.ryx.task.create.error"};

}  // namespace

Caller CallerOf(const Orbi::Core::ExecutionContext& context) {
  return {context.authentication ? context.authentication->userName : "", context.peer.address};
}

std::string GetTaskId(TaskError& error, ErrorKind kind) {
  const auto id = UUID_CreateRandom();
  UUID_Packed packed;
  if (!id || UUID_PackText(*id, packed) == 0) {
    error = MakeError("com.tessel.ryx.task.uuid.error", kind);
    return "";
  }
  Log_Level(LogLevel::kInformation, "[%s]: Generated task uuid %s\n", "GetTaskId", id->c_str());
  return *id;
}

TaskError RecordTask(const HostMarker& marker, const std::string& taskId, const RecordTexts& texts,
                     ErrorKind kind, const std::function<void(TaskFile&)>& add) {
  LogText(LogLevel::kNotice, texts.creating, {taskId});
  try {
    TaskFile file(kTaskStatusFile, TaskFile::Initialise::kWhenMissing);
    add(file);
    return {};
  } catch (const std::exception& e) {
    LogText(LogLevel::kCritical, texts.failed, {taskId, e.what()});
    ReleaseHost(marker, taskId);
    return MakeError(texts.error, kind);
  }
}

std::string InitTask(const std::string& operation, const Caller& caller, TaskError& error,
                     ErrorKind kind) {
  const std::string id = GetTaskId(error, kind);
  if (error || (error = ClaimHost(kTaskMarker, id, 0))) return "";
  error = RecordTask(kTaskMarker, id, kOwnTask, kind, [&](TaskFile& file) {
    file.AddTask(id, operation, kStatusFileRetries, caller);
  });
  return error ? "" : id;
}

}  // namespace LifeCycle
