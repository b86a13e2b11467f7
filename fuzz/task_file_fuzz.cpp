// Whatever stands in the task status file, its records can be read and ended, and the file that is
// written then holds the same tasks, each ended.

#include "fuzz/target.h"
#include "taskdb/json_document.h"
#include "taskdb/task_record.h"

namespace {

bool Parse(std::string& text, rapidjson::Document& document) {
  return !TaskDB::ParseInPlace(text, document).IsError() && document.IsObject();
}

void EndAll(rapidjson::Document& tasks) {
  const auto succeed = TaskDB::Succeed("{}");
  for (auto& [name, record] : TaskDB::Members(tasks)) {
    TaskDB::TaskInfo info;
    TaskDB::ReadRecord(std::string(TaskDB::TextOf(&name)), record, info);
    succeed(record, tasks.GetAllocator());
  }
}

}  // namespace

void Check(const std::string& input) {
  std::string text = input;
  rapidjson::Document tasks;
  if (!Parse(text, tasks)) return;
  EndAll(tasks);

  const auto printed = TaskDB::Print(tasks, input.size());
  std::string written(printed.GetString(), printed.GetSize());
  rapidjson::Document again;
  Require(Parse(written, again));
  const auto ended = TaskDB::Members(again);
  Require(ended.size() == tasks.MemberCount());
  for (std::size_t i = 0; i < ended.size(); ++i) {
    Require(TaskDB::TextOf(&ended[i].name) == TaskDB::TextOf(&TaskDB::Members(tasks)[i].name));
    Require(TaskDB::IsFinished(ended[i].value));
  }
}
