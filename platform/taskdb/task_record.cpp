#include "taskdb/task_record.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "orbi/date_time.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace TaskDB {
namespace {

using JsonDocument::FindMember;
using JsonDocument::TextOf;

std::string UtcNow() { return Orbi::DateTime::GetUtcDateTime().ToText(); }

[[noreturn]] void Refuse(const std::string& id, const char* reason) {
  Log_Level(LogLevel::kCritical, "[%s]: %s\n", id.c_str(), reason);
  throw std::runtime_error(reason);
}

constexpr char kUnknownError[] = "com.tessel.pelorus.lifecycle.RyxImage.UnknownError";

/// Replaces the member in place, or appends it.
void Set(Record& record, const char* name, Record value, Allocator& allocator) {
  if (!record.IsObject()) record.SetObject();
  if (Record* member = FindMember(record, name))
    *member = std::move(value);
  else
    record.AddMember(rapidjson::StringRef(name), std::move(value), allocator);
}

void SetText(Record& record, const char* name, const std::string& text, Allocator& allocator) {
  Set(record, name, Record(text, allocator), allocator);
}

void SetCompleted(Record& record, unsigned completed, Allocator& allocator) {
  Record* progress = FindMember(record, "progress");
  if (progress != nullptr && progress->IsObject()) {
    Set(*progress, "completed", Record(completed), allocator);
    return;
  }
  Record fresh(rapidjson::kObjectType);
  fresh.AddMember("completed", Record(completed), allocator);
  fresh.AddMember("total", Record(100U), allocator);
  Set(record, "progress", std::move(fresh), allocator);
}

void RequireStatus(const std::string& id, const Record& record, std::string_view status) {
  if (TextOf(FindMember(record, "status")) != status)
    Refuse(id, "Task is not in valid state to perform this operation.");
}

/// The nearest 32-bit integer, of whatever kind the number is; 0 for anything else.
std::int32_t IntegerOf(const Record* value) {
  using Limits = std::numeric_limits<std::int32_t>;
  if (value == nullptr || !value->IsNumber()) return 0;
  if (value->IsInt()) return value->GetInt();
  return static_cast<std::int32_t>(
      std::clamp<double>(value->GetDouble(), Limits::min(), Limits::max()));
}

/// @return the text of an argument, or nothing for a type that has none
std::optional<std::string> ArgumentText(const Record& value) {
  if (value.IsString()) return std::string(TextOf(&value));
  if (value.IsInt64()) return std::to_string(value.GetInt64());
  if (value.IsUint64()) return std::to_string(value.GetUint64());
  if (value.IsDouble()) return std::to_string(value.GetDouble());
  if (value.IsBool()) return value.GetBool() ? "true" : "false";
  return std::nullopt;
}

/// Reads a helper's notification: {"message": {"id": ..., "args": [...]}}.
void ReadError(const Record& error, TaskInfo& info) {
  info.errorId = kUnknownError;
  const Record* message = FindMember(error, "message");
  if (message == nullptr || !message->IsObject()) {
    Log_Level(LogLevel::kCritical, "Notification does not contain a message structure.\n");
    return;
  }
  const Record* id = FindMember(*message, "id");
  const Record* args = FindMember(*message, "args");
  if (id == nullptr || args == nullptr) {
    Log_Level(LogLevel::kCritical, "Notification message does not have id or args.\n");
    return;
  }
  if (!id->IsString() || !args->IsArray()) {
    Log_Level(LogLevel::kCritical, "Message id and args are of invalid types.\n");
    return;
  }
  info.errorId = TextOf(id);
  for (rapidjson::SizeType i = 0; i < args->Size(); ++i) {
    if (auto text = ArgumentText((*args)[i]))
      info.errorArgs.push_back(*std::move(text));
    else
      Log_Level(LogLevel::kCritical, "Ignoring arg %d of unexpected type.\n", static_cast<int>(i));
  }
}

}  // namespace

RecordMaker PendingRecord(const std::string& operation, const Caller& caller) {
  return [operation, caller](Allocator& allocator) {
    Record record(rapidjson::kObjectType);
    SetText(record, "status", "PENDING", allocator);
    SetText(record, "operation", operation, allocator);
    SetCompleted(record, 0, allocator);
    if (!caller.user.empty()) SetText(record, "user", caller.user, allocator);
    if (!caller.peer.empty()) SetText(record, "peer", caller.peer, allocator);
    return record;
  };
}

RecordMaker EmptyRecord() {
  return [](Allocator&) { return Record(rapidjson::kObjectType); };
}

RecordEdit Start(const std::string& id) {
  return [id](Record& record, Allocator& allocator) {
    RequireStatus(id, record, "PENDING");
    SetText(record, "status", "RUNNING", allocator);
    SetText(record, "startTime", UtcNow(), allocator);
  };
}

RecordEdit SetProgress(const std::string& id, unsigned completed) {
  if (completed > 100) Refuse(id, "Invalid progress value for task.");
  return [id, completed](Record& record, Allocator& allocator) {
    RequireStatus(id, record, "RUNNING");
    SetCompleted(record, completed, allocator);
  };
}

RecordEdit Succeed(const std::string& result) {
  return [result](Record& record, Allocator& allocator) {
    SetText(record, "status", "SUCCEEDED", allocator);
    SetCompleted(record, 100, allocator);
    SetText(record, "endTime", UtcNow(), allocator);
    if (!result.empty()) SetText(record, "result", result, allocator);
  };
}

RecordEdit Fail(const std::string& exception) {
  return [exception](Record& record, Allocator& allocator) {
    SetText(record, "status", "FAILED", allocator);
    SetText(record, "endTime", UtcNow(), allocator);
    if (!exception.empty()) SetText(record, "exception", exception, allocator);
  };
}

RecordEdit FailUnexplained() {
  return [](Record& record, Allocator& allocator) {
    if (FindMember(record, "progress") == nullptr) SetCompleted(record, 0, allocator);
    if (FindMember(record, "startTime") == nullptr)
      SetText(record, "startTime", UtcNow(), allocator);
    Fail("")(record, allocator);
    Record message(rapidjson::kObjectType);
    message.AddMember("id", rapidjson::StringRef(kUnknownError), allocator);
    message.AddMember("args", Record(rapidjson::kArrayType), allocator);
    Record error(rapidjson::kObjectType);
    error.AddMember("message", std::move(message), allocator);
    Set(record, "error", std::move(error), allocator);
  };
}

void RefuseDuplicate(const std::string& id) { Refuse(id, "Duplicate task detected."); }

void RefuseMissing(const std::string& id) { Refuse(id, "Task does not exists."); }

bool IsFinished(const Record& record) {
  const std::string_view status = TextOf(FindMember(record, "status"));
  return status == "SUCCEEDED" || status == "FAILED";
}

void ReadRecord(const std::string& id, const Record& record, TaskInfo& info) {
  info.id = id;
  info.operation = TextOf(FindMember(record, "operation"));
  info.user = TextOf(FindMember(record, "user"));
  const Record* status = FindMember(record, "status");
  if (status == nullptr || !status->IsString())
    Log_Level(LogLevel::kCritical, "Task has no status\n");
  info.status = TextOf(status);
  info.startTime = TextOf(FindMember(record, "startTime"));
  info.endTime = TextOf(FindMember(record, "endTime"));
  info.exception = TextOf(FindMember(record, "exception"));
  if (const Record* progress = FindMember(record, "progress")) {
    info.completed = IntegerOf(FindMember(*progress, "completed"));
    info.total = IntegerOf(FindMember(*progress, "total"));
  }
  if (const Record* result = FindMember(record, "result")) {
    if (!result->IsString()) Log_Level(LogLevel::kCritical, "Result field is not a string\n");
    info.result = TextOf(result);
  }
  if (const Record* error = FindMember(record, "error")) ReadError(*error, info);
}

}  // namespace TaskDB
