#include "lifecycle/tasks_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include "lifecycle/paths.h"
#include "lifecycle/task_errors.h"
#include "lifecycle/task_file.h"
#include "lifecycle/testing/call_operation.h"
#include "software/command/json_value.h"
#include "tesselibs/feature_state.h"
#include "tesselibs/testing/captured_log.h"

namespace Com::Tessel::Cis::TasksSvc {
namespace {

using ::LifeCycle::kTaskStatusFile;
using ::LifeCycle::TaskFile;
using testing::Contains;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace fs = std::filesystem;

/// The sandboxed host's records.
class TasksServiceTest : public testing::Test {
 protected:
  TasksServiceTest() {
    fs::create_directories(folder_);
    AsyncServiceBinder::BindImplementation(provider_, std::make_shared<AsyncServiceImpl>());
  }
  ~TasksServiceTest() override { fs::remove_all(folder_); }

  /// Makes these the only records, as helpers would.
  static void Store(const std::string& records) {
    std::ofstream(kTaskStatusFile) << "{" << records << "}";
  }

  std::string Call(const std::string& operation, const std::string& input) {
    return ::LifeCycle::CallOperation(provider_, "com.tessel.cis.tasks " + operation, input);
  }
  std::string Get(const std::string& id) { return Call("get", R"({"task":")" + id + "\"}"); }
  std::string List() { return Call("list", "{}"); }

  const fs::path folder_ = fs::path(kTaskStatusFile).parent_path();
  ::Orbi::Core::AsyncLocalProvider provider_;
  CapturedLog log_;
};

const std::string kStart = R"("2026-11-21T02:12:52.123Z")";
const std::string kTimes = R"("startTime":)" + kStart + R"(,"endTime":"2026-11-21T02:12:58.456Z")";

/// The progress in an answer.
std::string Progress(const std::string& total, const std::string& completed) {
  return R"("progress":{"total":)" + total + R"(,"completed":)" + completed +
         R"(,"message":{"id":"com.tessel.ryx.task.progress",)"
         R"("default_message":"Lifecycle Orbi progress","args":[]}})";
}

TEST_F(TasksServiceTest, TellsWhatIsRecorded) {
  const std::string common =
      R"({"description":{"id":"com.tessel.ryx.task.description",)"
      R"("default_message":"Lifecycle Orbi task","args":[]},"service":"kestreld","operation":)";
  const std::string toldTimes =
      R"("start_time":)" + kStart + R"(,"end_time":"2026-11-21T02:12:58.456Z",)";
  const std::string pending = R"("unknown","cancelable":false,"status":"PENDING"})";
  const std::pair<std::string, std::string> cases[] = {
      {"{}", pending},
      {R"({"status":"PENDING","progress":{"completed":0,"total":100}})", pending},
      {R"({"status":"RUNNING","progress":{"completed":7,"total":100},"startTime":)" + kStart + "}",
       R"("unknown","cancelable":false,"status":"RUNNING","start_time":)" + kStart + "," +
           Progress("100", "7") + "}"},
      {R"({"status":"SUCCEEDED","operation":"op","user":"root","result":"{\"OPTIONAL\":7}",)"
       R"("progress":{"completed":100,"total":100},)" +
           kTimes + "}",
       R"("op","user":"root","cancelable":false,"status":"SUCCEEDED",)" + toldTimes +
           Progress("100", "100") + R"(,"result":7})"},
      {R"({"status":"FAILED","error":{"message":{"args":["a","b"],"id":)"
       R"("com.tessel.pelorus.lifecycle.RyxImage.AddonNotFound"}},"exception":"x",)" +
           kTimes + "}",
       R"("unknown","cancelable":false,"status":"FAILED",)" + toldTimes + Progress("0", "0") +
           R"(,"error":{"com.tessel.orbi.std.errors.error":{"messages":[)"
           R"({"id":"com.tessel.pelorus.lifecycle.RyxImage.AddonNotFound","default_message":)"
           R"("Addon a with version b cannot be found in depot.","args":["a","b"]}]}}})"},
  };
  for (const auto& [record, answer] : cases) {
    Store("\"id\":" + record);
    EXPECT_EQ(Get("id"), common + answer) << record;
  }
}

TEST_F(TasksServiceTest, FailureWithoutUsableReasonHasNoError) {
  for (const std::string member : {R"("exception":"broken",)", R"("exception":"7",)", ""}) {
    Store(R"("id":{"status":"FAILED",)" + member + kTimes + "}");
    EXPECT_THAT(Get("id"), Not(HasSubstr("\"error\""))) << member;
  }
  EXPECT_THAT(log_.TakeLines(),
              IsSupersetOf({"2 Error de-serializing task exception: std::exception",
                            "3 Task id failed without any error details."}));
}

TEST_F(TasksServiceTest, EmptyMapsOfAResultAreObjects) {
  const struct {
    const char* operation;
    const char* result;
    const char* told;
  } cases[] = {
      {"kestrel_daemon.software.scan$task",
       R"({"STRUCTURE":{"x":{"components":[],"hardware_support":[],"messages":[],"solutions":[]}}})",
       R"({"components":{},"hardware_support":{},"messages":[],"solutions":{}})"},
      {"kestrel_daemon.components.apply$task", R"({"STRUCTURE":{"x":{"components":[]}}})",
       R"({"components":{}})"},
      {"hosts.settings.set$task",
       R"({"STRUCTURE":{"x":{"image":{"OPTIONAL":{"STRUCTURE":{"y":{"components":[]}}}},"messages":[]}}})",
       R"({"image":{"components":{}},"messages":[]})"},
      {"hosts.settings.set$task", R"({"STRUCTURE":{"x":{"image":{"OPTIONAL":null}}}})", "{}"},
      {"kestrel_daemon.software.scan$task", R"([{"STRUCTURE":{"x":{"components":[]}}}])",
       R"([{"components":[]}])"},
      {"nobody.knows", R"({"STRUCTURE":{"x":{"components":[]}}})", R"({"components":[]})"},
  };
  for (const auto& [operation, result, told] : cases) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer>(text).String(result);
    Store(std::string(R"("id":{"status":"SUCCEEDED","operation":"com.tessel.ryx.)") + operation +
          R"(","result":)" + text.GetString() + "," + kTimes + "}");
    EXPECT_THAT(Get("id"), HasSubstr(std::string(R"("result":)") + told + "}")) << operation;
  }
}

TEST_F(TasksServiceTest, ListLeavesOutWhatGetCannotTell) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"status":"running","startTime":"x"})", "Task bad has invalid status running"},
      {R"({"status":"RUNNING"})", "Task bad does not have start time"},
      {R"({"status":"RUNNING","startTime":"yesterday"})",
       "Task bad has invalid start time yesterday"},
      {R"({"status":"FAILED","startTime":)" + kStart + "}", "Task bad does not have end time"},
      {R"({"status":"SUCCEEDED","result":"{",)" + kTimes + "}",
       "Result of task bad cannot be de-serialized"},
  };
  for (const auto& [record, reason] : cases) {
    Store(R"("good":{"status":"PENDING"},"bad":)" + record);
    EXPECT_EQ(Get("bad"), "error task.unknown.error") << record;
    EXPECT_THAT(log_.TakeLines(), Contains("2 Failed to convert task info for bad"));
    EXPECT_EQ(List(), R"({"good":)" + Get("good") + "}") << record;
    EXPECT_THAT(log_.TakeLines(), Contains("3 [List] :  " + reason + ", skipping task"));
  }
}

TEST_F(TasksServiceTest, LockThatCannotBeHadMakesTheRecordsInaccessible) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const std::string get = Get("id");
  const std::string list = List();
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(get, "resource_inaccessible task.lock.error");
  EXPECT_EQ(list, get);
}

TEST_F(TasksServiceTest, FileAndDatabaseAreToldAlike) {
  const std::string features = folder_ / "feature-states";
  for (const std::string suffix : {"", ".db"}) {
    std::ofstream(features) << "task_database = " << (suffix.empty() ? "false" : "true") << "\n";
    FeatureState_InitSilentMode(features);
    const std::string path = kTaskStatusFile + suffix;
    SCOPED_TRACE(path);
    EXPECT_EQ(Get("id"), "not_found task.file.notfound.error");
    EXPECT_EQ(List(), "{}");
    EXPECT_FALSE(fs::exists(path)) << "reading made it";

    fs::create_directory(path);
    EXPECT_EQ(Get("id"), "error task.unknown.error");
    EXPECT_EQ(List(), "service_unavailable task.unknown.error");
    fs::remove(path);

    std::ofstream(path) << std::string(5000, 'x');
    EXPECT_THAT(Get("id"), testing::StartsWith("error task.parse.error settings.reason(Json "));
    EXPECT_THAT(List(), testing::StartsWith("resource_inaccessible task.parse.error settings."));

    TaskFile file(kTaskStatusFile, TaskFile::Initialise::kAlways);
    file.AddTask("id", "op", 0);
    EXPECT_EQ(Get("other"), "not_found task.notfound.error(other)");
    EXPECT_EQ(Call("cancel", R"({"task":"id"})"), "unsupported task.cancel.unsupported");
    file.StartTask("id", 0);
    const auto aborted =
        ::LifeCycle::MakeError("com.tessel.ryx.task.aborted", ::LifeCycle::ErrorKind::kError);
    file.FailTask("id", ::LifeCycle::ValueToTypedJson(*aborted), 0);
    EXPECT_THAT(Get("id"), HasSubstr(R"("id":"com.tessel.ryx.task.aborted")"));
    EXPECT_EQ(List(), R"({"id":)" + Get("id") + "}");
  }
  FeatureState_InitSilentMode("/nowhere");
}

}  // namespace
}  // namespace Com::Tessel::Cis::TasksSvc
