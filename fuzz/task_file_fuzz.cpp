// Whatever stands in the task status file, its records can be read and ended, and the file that is
// written then holds the same tasks, each ended.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "taskdb/json_document.h"
#include "taskdb/task_record.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

bool Parse(std::string& text, rapidjson::Document& document) {
  return !TaskDB::ParseInPlace(text, document).IsError() && document.IsObject();
}

void EndAll(rapidjson::Document& tasks) {
  const auto succeed = TaskDB::Succeed("{}");
  for (auto& [name, record] : tasks.GetObject()) {
    TaskDB::TaskInfo info;
    TaskDB::ReadRecord(std::string(TaskDB::TextOf(&name)), record, info);
    succeed(record, tasks.GetAllocator());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  rapidjson::Document tasks;
  if (!Parse(text, tasks)) return 0;
  EndAll(tasks);

  const auto printed = TaskDB::Print(tasks, size);
  std::string written(printed.GetString(), printed.GetSize());
  rapidjson::Document again;
  Require(Parse(written, again) && again.MemberCount() == tasks.MemberCount());
  for (auto before = tasks.MemberBegin(), after = again.MemberBegin(); before != tasks.MemberEnd();
       ++before, ++after) {
    Require(TaskDB::TextOf(&before->name) == TaskDB::TextOf(&after->name));
    Require(TaskDB::IsFinished(after->value));
  }
  return 0;
}
