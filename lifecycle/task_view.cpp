#include "lifecycle/task_view.h"

#include <algorithm>
#include <optional>

#include "bindings/task_results.h"
#include "configuration/messages/api_errors.h"
#include "orbi/data/message.h"
#include "orbi/data/value.h"
#include "orbi/date_time.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace Task = Com::Tessel::Cis::Task;

struct StatusName {
  const char* name;
  Task::Status status;
};

constexpr StatusName kStatusNames[] = {{"PENDING", Task::Status::PENDING},
                                       {"RUNNING", Task::Status::RUNNING},
                                       {"SUCCEEDED", Task::Status::SUCCEEDED},
                                       {"FAILED", Task::Status::FAILED}};

[[noreturn]] void Fail(const std::string& before, const TaskDB::TaskInfo& record,
                       const std::string& after) {
  throw TaskInfoError(before + record.id + after);
}

Task::Status StatusOf(const TaskDB::TaskInfo& record) {
  if (record.status.empty()) {
    Log_Level(LogLevel::kInformation, "Task has no status, use pending\n");
    return Task::Status::PENDING;
  }
  const auto known = std::ranges::find(kStatusNames, record.status, &StatusName::name);
  if (known == std::end(kStatusNames))
    Fail("Task ", record, " has invalid status " + record.status);
  return known->status;
}

/// @param name  what kind of time it is, for the error
Orbi::DateTime TimeOf(const TaskDB::TaskInfo& record, const std::string& text,
                      const std::string& name) {
  if (text.empty()) Fail("Task ", record, " does not have " + name);
  const auto time = Orbi::DateTime::Create(text);
  if (!time) Fail("Task ", record, " has invalid " + name + " " + text);
  return *time;
}

std::optional<Orbi::Data::Value> ResultOf(const TaskDB::TaskInfo& record) {
  if (record.result.empty()) return std::nullopt;
  Log_Level(LogLevel::kNotice, "Result %s\n", record.result.c_str());
  try {
    Orbi::Data::Value result = *TypedJsonToValue(record.result);
    Orbi::Bindings::MarkMapsOfTaskResult(record.operation, result);
    return result;
  } catch (const OrbiJsonSerializationError& e) {
    Log_Level(LogLevel::kCritical, "Error de-serializing task result: %s\n", e.what());
  }
  Fail("Result of task ", record, " cannot be de-serialized");
}

/// The error that an in-process task left as its exception.
std::optional<Orbi::Data::ErrorValue> ExceptionOf(const TaskDB::TaskInfo& record) {
  try {
    const auto value = TypedJsonToValue(record.exception);
    if (const auto* error = value->As<Orbi::Data::ErrorValue>()) return *error;
    Log_Level(LogLevel::kCritical, "Error de-serializing task exception: %s\n", "it is no error");
  } catch (const OrbiJsonSerializationError& e) {
    Log_Level(LogLevel::kCritical, "Error de-serializing task exception: %s\n", e.what());
  }
  return std::nullopt;
}

/// The messages that a helper tells beside its error's, which stand in its record's exception.
std::vector<Orbi::Data::LocalizableMessage> FurtherMessages(const TaskDB::TaskInfo& record) {
  std::vector<Orbi::Data::LocalizableMessage> further;
  const auto exception = record.exception.empty() ? std::nullopt : ExceptionOf(record);
  const auto* const messages = exception ? exception->Find("messages") : nullptr;
  const auto* const list = messages != nullptr ? messages->As<Orbi::Data::List>() : nullptr;
  if (list == nullptr) return further;
  for (const Orbi::Data::Value& item : list->items) {
    if (auto message = Orbi::Data::LocalizableMessage::FromValue(item))
      further.push_back(*std::move(message));
  }
  return further;
}

std::optional<Orbi::Data::ErrorValue> ErrorOf(const TaskDB::TaskInfo& record) {
  if (!record.errorId.empty())
    return ApiError(Com::Tessel::Orbi::Std::Errors::Error, record.errorId, record.errorArgs,
                    FurtherMessages(record));
  if (!record.exception.empty()) return ExceptionOf(record);
  Log_Level(LogLevel::kError, "Task %s failed without any error details.\n", record.id.c_str());
  return std::nullopt;
}

}  // namespace

Task::Info ToTaskInfo(const TaskDB::TaskInfo& record) {
  Task::Info info;
  // Worded apart from the entries of the same identifiers in the message table, and kept so.
  info.description =
      Orbi::Data::MakeMessage("com.tessel.ryx.task.description", "Lifecycle Orbi task");
  info.service = "kestreld";
  info.operation = record.operation.empty() ? "unknown" : record.operation;
  if (!record.user.empty()) info.user = record.user;
  info.cancelable = false;
  info.status = StatusOf(record);
  if (info.status != Task::Status::PENDING) {
    info.start_time = TimeOf(record, record.startTime, "start time");
    info.progress = {
        record.total, record.completed,
        Orbi::Data::MakeMessage("com.tessel.ryx.task.progress", "Lifecycle Orbi progress")};
  }
  if (info.status == Task::Status::SUCCEEDED || info.status == Task::Status::FAILED)
    info.end_time = TimeOf(record, record.endTime, "end time");
  info.result = ResultOf(record);
  if (info.status == Task::Status::FAILED) info.error = ErrorOf(record);
  return info;
}

}  // namespace LifeCycle
