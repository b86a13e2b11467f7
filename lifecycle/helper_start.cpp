#include "lifecycle/helper_start.h"

#include <chrono>
#include <exception>

#include "lifecycle/helper_end.h"
#include "lifecycle/log_text.h"
#include "lifecycle/task_file.h"
#include "lifecycle/waiting.h"
#include "pcore/pcore_ctl.h"

namespace LifeCycle {

constinit const HelperKind kImageManagerTask{
    .marker = kTaskMarker,
    .recording = {.creating = "[RunTask]: Creating task: {1}",
                  .failed = "[RunTask]: Failed to create task {1}: {2}",
                  .error = "com.tessel.ryx.task.create.error"},
    .starting = "[RunTask]: Executing command: {2}",
    .refused =
        "[RunTask]: Failed to exec command for task {1}: PcoreCtl_Daemon() returned {2}, "
        "{3} retries left",
    .failed = "[RunTask]: Failed to exec command for task {1}: {2}, {3} retries left",
    .startError = "com.tessel.ryx.task.exec.error"};

constinit const HelperKind kApplyTask{
    .marker = kApplyMarker,
    .recording = {.creating = "[Set]: Creating task: {1}",
                  .failed = "[Set]: {2}",
                  .error = "com.tessel.ryx.apply.unknown.error"},
    .starting = "[Set]: Running task: {2}",
    .refused = "[Set] Failed to exec updater: PcoreCtl_Daemon() returned {2}",
    .failed = "[Set] Failed to exec updater: {2}",
    .startError = "com.tessel.ryx.apply.unknown.error"};

namespace {

/// One try to start a task's command. Why it failed is logged.
bool TryToStart(const HelperKind& kind, const HelperCommand& command, int retriesLeft) {
  const auto log = [&](LogLevel level, const char* text, const std::string& argument) {
    LogText(level, text, {command.taskId, argument, std::to_string(retriesLeft)});
  };
  log(LogLevel::kNotice, kind.starting, command.line);
  try {
    const int result = PcoreCtl::Util::PcoreCtl_Daemon(
        command.line, false, false, true, true,
        EndOfHelper({command.taskId, kind.marker, command.documents}),
        {"KESTRELD_USER=" + command.caller.user, "KESTRELD_PEER=" + command.caller.peer});
    if (result == 0) return true;
    log(LogLevel::kCritical, kind.refused, std::to_string(result));
  } catch (const std::exception& e) {
    log(LogLevel::kCritical, kind.failed, e.what());
  }
  return false;
}

void Prepare(const HelperKind& kind, const HelperCommand& command) {
  if (!command.prepare) return;
  try {
    command.prepare();
  } catch (...) {
    ReleaseHost(kind.marker, command.taskId);
    throw;
  }
}

}  // namespace

TaskError RunTask(const HelperKind& kind, const HelperCommand& command) {
  const std::string& id = command.taskId;
  if (TaskError error = ClaimHost(kind.marker, id, command.retries)) return error;
  Prepare(kind, command);
  if (TaskError error =
          RecordTask(kind.marker, id, kind.recording, command.errors,
                     [&id](TaskFile& file) { file.AddEmptyTask(id, kStatusFileRetries); }))
    return error;
  for (int retries = command.retries;; --retries) {
    if (TryToStart(kind, command, retries)) return {};
    if (retries == 0 || !Wait(std::chrono::seconds(1))) break;
  }
  ReleaseHost(kind.marker, id);
  return MakeError(kind.startError, command.errors);
}

}  // namespace LifeCycle
