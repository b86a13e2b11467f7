#include "lifecycle/task_creation.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "configuration/messages/api_errors.h"
#include "lifecycle/access_lock.h"
#include "lifecycle/helper_end.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "lifecycle/task_schedular.h"
#include "orbi/std/errors.h"
#include "pcore/pcore_ctl.h"
#include "software/command/remove_files.h"
#include "software/command/write_to_file.h"
#include "tesselibs/log.h"
#include "tesselibs/uuid.h"

namespace LifeCycle {
namespace {

constexpr int kStatusFileRetries = 5;

/// One attempt to win the host. Why it failed is logged.
/// @param retries  how many attempts are left, for the log
bool TryToWinHost(const std::string& taskId, int retries) {
  static constexpr char kName[] = "_CheckTaskContention";
  try {
    // Proves that no other starter holds it at this moment, and no more than that: it is given up
    // before the sync file is looked at, in the order that every starter keeps.
    const AccessLock lock(kTaskSyncFile, 0);
  } catch (const AccessLockError&) {
    Log_Level(LogLevel::kCritical,
              "[%s]: Lock contention in task %s, another task is starting, %d retries left\n",
              kName, taskId.c_str(), retries);
    return false;
  }
  if (access(kTaskSyncFile.c_str(), F_OK) == 0) {
    Log_Level(LogLevel::kCritical,
              "[%s]: Task sync file exists, another task is progress, %d retries left\n", kName,
              retries);
    return false;
  }
  if (const int error = errno; error != ENOENT) {
    Log_Level(LogLevel::kCritical,
              "[%s]: Failed to determine if the task sync file exists: %s, %d retries left\n",
              kName, std::strerror(error), retries);
    return false;
  }
  try {
    WriteToFile(kTaskSyncFile, "PRECURSOR: " + taskId);
    return true;
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical,
              "[%s]: Failed to write to the task sync file in task %s: %s, %d retries left\n",
              kName, taskId.c_str(), e.what(), retries);
    return false;
  }
}

/// Records a task that has won the host.
/// @param name  the calling function, for the log
/// @param add   adds the record
/// @return whether it is recorded; otherwise the host is free again and `error` is set
template <typename Add>
bool RecordTask(const char* name, const std::string& taskId, TaskError& error, ErrorKind kind,
                const Add& add) {
  Log_Level(LogLevel::kNotice, "[%s]: Creating task: %s\n", name, taskId.c_str());
  try {
    TaskFile file(kTaskStatusFile, TaskFile::Initialise::kWhenMissing);
    add(file);
    return true;
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s]: Failed to create task %s: %s\n", name, taskId.c_str(),
              e.what());
    RemoveFiles({kTaskSyncFile});
    error = MakeError("com.tessel.ryx.task.create.error", kind);
    return false;
  }
}

/// One attempt to start a task's command. Why it failed is logged.
bool StartCommand(const std::string& command, const HelperTask& task, int retries) {
  static constexpr char kName[] = "RunTask";
  Log_Level(LogLevel::kNotice, "[%s]: Executing command: %s\n", kName, command.c_str());
  try {
    const int result =
        PcoreCtl::Util::PcoreCtl_Daemon(command, false, false, true, true, EndOfHelper(task));
    if (result == 0) return true;
    Log_Level(LogLevel::kCritical,
              "[%s]: Failed to exec command for task %s: PcoreCtl_Daemon() returned %d, "
              "%d retries left\n",
              kName, task.id.c_str(), result, retries);
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(LogLevel::kCritical,
              "[%s]: Failed to exec command for task %s: %s, %d retries left\n", kName,
              task.id.c_str(), e.what(), retries);
  }
  return false;
}

}  // namespace

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

bool CheckTaskContention(const std::string& taskId, TaskError& error, int retries) {
  for (; retries >= 0; --retries) {
    TaskSchedular::Instance().awaitEnding();
    if (TryToWinHost(taskId, retries)) return false;
    sleep(1);
  }
  error = std::make_shared<const Orbi::Data::ErrorValue>(ApiError(
      Com::Tessel::Orbi::Std::Errors::NotAllowedInCurrentState, "com.tessel.ryx.task.contention"));
  return true;
}

std::string InitTask(const std::string& operation, TaskError& error, ErrorKind kind) {
  const std::string id = GetTaskId(error, kind);
  if (id.empty() || CheckTaskContention(id, error, 0)) return "";
  const bool recorded = RecordTask("InitTask", id, error, kind, [&](TaskFile& file) {
    file.AddTask(id, operation, kStatusFileRetries);
  });
  return recorded ? id : "";
}

void RunTask(const std::string& command, const std::string& taskId, TaskError& error,
             ErrorKind kind, int retries, const std::vector<std::string>& documents) {
  if (CheckTaskContention(taskId, error, retries)) return;
  if (!RecordTask("RunTask", taskId, error, kind,
                  [&](TaskFile& file) { file.AddEmptyTask(taskId, kStatusFileRetries); }))
    return;
  for (;; --retries) {
    if (StartCommand(command, {taskId, kTaskSyncFile, documents}, retries)) return;
    if (retries == 0) break;
    sleep(1);
  }
  RemoveFiles({kTaskSyncFile});
  error = MakeError("com.tessel.ryx.task.exec.error", kind);
}

}  // namespace LifeCycle
