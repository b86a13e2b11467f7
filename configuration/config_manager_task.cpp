#include "configuration/config_manager_task.h"

#include <cstring>
#include <exception>
#include <utility>

#include "configuration/messages/api_errors.h"
#include "configuration/messages/translator.h"
#include "lifecycle/host_claim.h"
#include "lifecycle/paths.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace Errors = Com::Tessel::Orbi::Std::Errors;

}  // namespace

ConfigManagerTaskImpl::ConfigManagerTaskImpl(std::string operation, std::string taskId)
    : operation_(std::move(operation)),
      taskFile_(kTaskStatusFile, TaskFile::Initialise::kNever),
      taskId_(std::move(taskId)) {}

ConfigManagerTaskImpl::~ConfigManagerTaskImpl() {
  const int failure = ReleaseHost(kTaskMarker, taskId_);
  if (failure == 0)
    Log_Level(LogLevel::kNotice, "ConfigManagerTask[%s]: Cleaned up task tracking file %s\n",
              ConfigManagerTaskImpl::label().c_str(), kTaskSyncFile.c_str());
  else
    Log_Level(LogLevel::kCritical,
              "ConfigManagerTask[%s]: Failed to cleanup tracking file=%s, errno=%s\n",
              ConfigManagerTaskImpl::label().c_str(), kTaskSyncFile.c_str(), strerror(failure));
}

void ConfigManagerTaskImpl::preRun() {
  taskFile_.StartTask(taskId_, kStatusFileRetries);
  started_ = true;
  SetProgress(5);
  Log_Level(LogLevel::kNotice, "ConfigManagerTask[%s]: preRun completed.\n", label().c_str());
}

void ConfigManagerTaskImpl::run() {
  Log_Level(LogLevel::kNotice, "ConfigManagerTask[%s]: Run started.\n", label().c_str());
  try {
    Prepare();
    SetUpTranslator();
    SetProgress(10);
    const Conversion convert = Work();
    SetProgress(95);
    result_ = convert();
    Log_Level(LogLevel::kNotice, "ConfigManagerTask[%s]: Run completed.\n", label().c_str());
  } catch (const OperationError& e) {
    error_ = e.error();
  } catch (const std::exception& e) {
    error_ = Translate(e);
  }
}

void ConfigManagerTaskImpl::postRun() {
  try {
    RecordOutcome();
    Log_Level(LogLevel::kNotice, "ConfigManagerTask[%s]: postRun completed.\n", label().c_str());
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: postRun failed: %s\n", label().c_str(),
              e.what());
  }
}

void ConfigManagerTaskImpl::abort() {
  try {
    RecordFailure(ApiError(Errors::Error, "com.tessel.ryx.task.aborted"));
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: abort failed. %s\n", label().c_str(),
              e.what());
  }
}

void ConfigManagerTaskImpl::RecordOutcome() {
  if (error_) return RecordFailure(*error_);
  // Its preparation failed: the log tells why.
  if (!result_) return RecordFailure(ApiError(Errors::Error, "com.tessel.ryx.task.exec.error"));
  try {
    taskFile_.SucceedTask(taskId_, ValueToTypedJson(*result_), kStatusFileRetries);
  } catch (const std::exception& e) {
    // It cannot be written, or the task file has no room for it; the task must not run for ever.
    Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: Failed to record the result: %s\n",
              label().c_str(), e.what());
    RecordFailure(
        ApiError(Errors::Error, "com.tessel.ryx.kestrel_daemon.configuration.create.result.error"));
  }
}

void ConfigManagerTaskImpl::RecordFailure(const Orbi::Data::ErrorValue& error) {
  try {
    // Clients are told of an ended task only when its start is known, too.
    if (!started_) taskFile_.StartTask(taskId_, kStatusFileRetries);
  } catch (const std::exception&) {
    // What kept it from starting: the log tells why.
  }
  taskFile_.FailTask(taskId_, ValueToTypedJson(error), kStatusFileRetries);
}

void ConfigManagerTaskImpl::SetProgress(unsigned percent) {
  if (percent <= progress_) return;
  progress_ = percent;
  try {
    taskFile_.SetProgress(taskId_, percent, kStatusFileRetries);
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "ConfigManagerTask[%s]: Failed to record progress: %s\n",
              label().c_str(), e.what());
  }
}

RyxConfigManager::TaskInput ConfigManagerTaskImpl::MakeTaskInput(Range range) {
  return {taskId_, range.from, range.to, [this](unsigned percent) { SetProgress(percent); },
          [this] { return isAbortRequested(); }};
}

}  // namespace LifeCycle
