// Whatever stands in the task status file, its records can be read and ended, and the file that is
// written then holds the same tasks, each ended.

#include "fuzz/target.h"
#include "taskdb/task_record.h"
#include "tesselibs/json_document.h"

namespace {

bool Parse(std::string& text, rapidjson::Document& document) {
  return !JsonDocument::ParseInPlace(text, document).IsError() && document.IsObject();
}

void EndAll(rapidjson::Document& tasks) {
  const auto succeed = TaskDB::Succeed("{}");
  for (auto& [name, record] : JsonDocument::Members(tasks)) {
    TaskDB::TaskInfo info;
    TaskDB::ReadRecord(std::string(JsonDocument::TextOf(&name)), record, info);
    succeed(record, tasks.GetAllocator());
  }
}

}  // namespace

void Check(const std::string& input) {
  std::string text = input;
  rapidjson::Document tasks;
  if (!Parse(text, tasks)) return;
  EndAll(tasks);

  const auto printed = JsonDocument::Print(tasks, input.size());
  std::string written(printed.GetString(), printed.GetSize());
  rapidjson::Document again;
  Require(Parse(written, again));
  const auto ended = JsonDocument::Members(again);
  Require(ended.size() == tasks.MemberCount());
  for (std::size_t i = 0; i < ended.size(); ++i) {
    Require(JsonDocument::TextOf(&ended[i].name) ==
            JsonDocument::TextOf(&JsonDocument::Members(tasks)[i].name));
    Require(TaskDB::IsFinished(ended[i].value));
  }
}
