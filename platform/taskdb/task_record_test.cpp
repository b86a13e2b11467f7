#include "taskdb/task_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

#include "tesselibs/json_document.h"
#include "tesselibs/testing/captured_log.h"

namespace TaskDB {
namespace {

using testing::ElementsAre;

constexpr char kUnknownError[] = "com.tessel.pelorus.lifecycle.RyxImage.UnknownError";

TaskInfo Read(std::string json) {
  rapidjson::Document document;
  EXPECT_FALSE(JsonDocument::ParseInPlace(json, document).IsError()) << json;
  TaskInfo info;
  ReadRecord("id", document, info);
  return info;
}

TEST(ReadRecord, ReadsAnyKindOfNumberAsProgress) {
  constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
  constexpr auto kLeast = std::numeric_limits<std::int32_t>::min();
  const struct {
    const char* json;
    std::int32_t completed;
  } cases[] = {{"-1", -1},
               {"50.9", 50},
               {"3000000000", kMost},
               {"1e300", kMost},
               {"-1e300", kLeast},
               {"\"50\"", 0},
               {"null", 0},
               {"{}", 0},
               {"-3000000000", kLeast},
               {"18446744073709551615", kMost}};
  for (const auto& c : cases) {
    const auto record =
        std::string(R"({"status":"RUNNING","progress":{"completed":)") + c.json + "}}";
    EXPECT_EQ(Read(record).completed, c.completed) << c.json;
  }
  EXPECT_EQ(Read(R"({"status":"RUNNING","progress":7})").completed, 0);
}

TEST(ReadRecord, SaysWhatItCannotUseAndKeepsTheRest) {
  const std::string noStatus = "2 Task has no status";
  const std::string noMessage = "2 Notification does not contain a message structure.";
  const std::string noMember = "2 Notification message does not have id or args.";
  const std::string badMember = "2 Message id and args are of invalid types.";
  const std::pair<std::string, std::string> cases[] = {
      {"{}", noStatus},
      {R"({"status":7})", noStatus},
      {"[]", noStatus},
      {R"({"status":"X","result":{"a":1}})", "2 Result field is not a string"},
      {R"({"status":"X","error":{}})", noMessage},
      {R"({"status":"X","error":"text"})", noMessage},
      {R"({"status":"X","error":{"message":[]}})", noMessage},
      {R"({"status":"X","error":{"message":{"id":"a"}}})", noMember},
      {R"({"status":"X","error":{"message":{"args":[]}}})", noMember},
      {R"({"status":"X","error":{"message":{"id":1,"args":[]}}})", badMember},
      {R"({"status":"X","error":{"message":{"id":"a","args":{}}}})", badMember},
  };
  CapturedLog log;
  for (const auto& [json, line] : cases) {
    const TaskInfo info = Read(json);
    EXPECT_EQ(info.errorId, json.find("error") == json.npos ? "" : kUnknownError) << json;
    EXPECT_EQ(info.result, "");
    EXPECT_THAT(log.TakeLines(), ElementsAre(line)) << json;
  }
}

TEST(ReadRecord, TellsErrorArgumentsAsText) {
  CapturedLog log;
  const TaskInfo info =
      Read(R"({"status":"FAILED","error":{"message":{"id":"a",)"
           R"("args":[1,2.5,true,"x",null,-7,false,18446744073709551615,[1],{}]}}})");
  EXPECT_THAT(info.errorArgs,
              ElementsAre("1", "2.500000", "true", "x", "-7", "false", "18446744073709551615"));
  EXPECT_THAT(log.TakeLines(), ElementsAre("2 Ignoring arg 4 of unexpected type.",
                                           "2 Ignoring arg 8 of unexpected type.",
                                           "2 Ignoring arg 9 of unexpected type."));
}

}  // namespace
}  // namespace TaskDB
