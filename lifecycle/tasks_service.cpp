#include "lifecycle/tasks_service.h"

#include <exception>
#include <map>
#include <optional>
#include <string>

#include "configuration/messages/api_errors.h"
#include "lifecycle/access_lock.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "lifecycle/task_file_errors.h"
#include "lifecycle/task_view.h"
#include "orbi/std/errors.h"
#include "tesselibs/log.h"

namespace Com::Tessel::Cis::TasksSvc {
namespace {

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;
using ::LifeCycle::ApiError;
using ::LifeCycle::ApiMessage;
using ::LifeCycle::kStatusFileRetries;
using ::Orbi::Data::ErrorValue;

constexpr char kUnknownError[] = "com.tessel.ryx.task.unknown.error";

/// How an operation tells that the records cannot be read. The operations differ on purpose.
struct Operation {
  const char* name;
  Errors::StandardError unreadable;
  Errors::StandardError unknown;
};

constexpr Operation kGet{"Get", Errors::Error, Errors::Error};
constexpr Operation kList{"List", Errors::ResourceInaccessible, Errors::ServiceUnavailable};

/// Why the records cannot be read, as told to the client.
struct ReadFailure {
  ErrorValue error;
};

ReadFailure Unreadable(const Operation& operation, const std::exception& reason) {
  Log_Level(LogLevel::kCritical, "[%s] :  %s\n", operation.name, reason.what());
  return {ApiError(operation.unreadable, "com.tessel.ryx.task.parse.error", {},
                   {ApiMessage("com.tessel.ryx.settings.reason", {reason.what()})})};
}

/// @param read  reads what the operation needs
/// @throws LifeCycle::TaskFileNotFoundError, ReadFailure
template <typename Read>
auto ReadTasks(const Operation& operation, const Read& read) {
  using ::LifeCycle::TaskFile;
  try {
    return read(TaskFile(::LifeCycle::kTaskStatusFile, TaskFile::Initialise::kNever));
  } catch (const ::LifeCycle::TaskFileNotFoundError&) {
    throw;
  } catch (const ::LifeCycle::AccessLockError& e) {
    Log_Level(LogLevel::kCritical, "[%s]: Failed to acquire lock: %s\n", operation.name, e.what());
    throw ReadFailure{ApiError(Errors::ResourceInaccessible, "com.tessel.ryx.task.lock.error")};
  } catch (const ::LifeCycle::JsonParseError& e) {
    throw Unreadable(operation, e);
  } catch (const ::LifeCycle::UnusableTaskFileError& e) {
    throw Unreadable(operation, e);
  } catch (...) {
    Log_Level(LogLevel::kCritical, "[%s]: Unknown error\n", operation.name);
    throw ReadFailure{ApiError(operation.unknown, kUnknownError)};
  }
}

/// @throws ReadFailure
std::map<std::string, TaskDB::TaskInfo> ReadTasksForList() {
  try {
    return ReadTasks(kList, [](const auto& file) { return file.GetTasks(kStatusFileRetries); });
  } catch (const ::LifeCycle::TaskFileNotFoundError& e) {
    Log_Level(LogLevel::kCritical, "[%s]: Returning empty list.: %s\n", kList.name, e.what());
    return {};
  }
}

/// @throws ReadFailure
std::optional<TaskDB::TaskInfo> ReadTaskForGet(const std::string& id) {
  try {
    return ReadTasks(kGet,
                     [&id](const auto& file) { return file.GetTask(id, kStatusFileRetries); });
  } catch (const ::LifeCycle::TaskFileNotFoundError& e) {
    Log_Level(LogLevel::kCritical, "[%s] %s\n", kGet.name, e.what());
    throw ReadFailure{ApiError(Errors::NotFound, "com.tessel.ryx.task.file.notfound.error")};
  }
}

ErrorValue ConversionFailed(const std::string& id) {
  Log_Level(LogLevel::kCritical, "Failed to convert task info for %s\n", id.c_str());
  return ApiError(Errors::Error, kUnknownError);
}

}  // namespace

void AsyncServiceImpl::Get(const ::Orbi::Core::ExecutionContextPtr&, const GetInput& input,
                           ::Orbi::Core::AsyncResult<Task::Info> result) {
  const std::string& id = input.task;
  Log_Level(LogLevel::kNotice, "[%s]: Getting the task with id:'%s'\n", kGet.name, id.c_str());
  std::optional<Task::Info> info;
  try {
    const auto task = ReadTaskForGet(id);
    if (!task) {
      Log_Level(LogLevel::kNotice, "[%s]: Task with identifier '%s' not found.\n", kGet.name,
                id.c_str());
      return result.SetError(
          ApiError(Errors::NotFound, "com.tessel.ryx.task.notfound.error", {id}));
    }
    info = ::LifeCycle::ToTaskInfo(*task);
  } catch (ReadFailure& failure) {
    return result.SetError(std::move(failure.error));
  } catch (const std::exception&) {
    return result.SetError(ConversionFailed(id));
  }
  result.SetResult(*std::move(info));
}

void AsyncServiceImpl::List(const ::Orbi::Core::ExecutionContextPtr&, const ListInput&,
                            ::Orbi::Core::AsyncResult<std::map<std::string, Task::Info>> result) {
  std::map<std::string, Task::Info> infos;
  std::string id;
  try {
    auto tasks = ReadTasksForList();
    while (!tasks.empty()) {  // each goes as soon as it is told: thousands take their memory once
      const auto task = tasks.extract(tasks.begin());
      id = task.key();
      try {
        infos.emplace_hint(infos.end(), id, ::LifeCycle::ToTaskInfo(task.mapped()));
      } catch (const ::LifeCycle::TaskInfoError& e) {
        Log_Level(LogLevel::kError, "[%s] :  %s, skipping task\n", kList.name, e.what());
      }
    }
  } catch (ReadFailure& failure) {
    return result.SetError(std::move(failure.error));
  } catch (const std::exception&) {
    return result.SetError(ConversionFailed(id));
  }
  result.SetResult(std::move(infos));
}

void AsyncServiceImpl::Cancel(const ::Orbi::Core::ExecutionContextPtr&, const CancelInput&,
                              ::Orbi::Core::AsyncResult<void> result) {
  result.SetError(ApiError(Errors::Unsupported, "com.tessel.ryx.task.cancel.unsupported"));
}

}  // namespace Com::Tessel::Cis::TasksSvc
