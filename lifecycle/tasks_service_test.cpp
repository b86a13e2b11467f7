#include "lifecycle/tasks_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "lifecycle/paths.h"
#include "lifecycle/task_errors.h"
#include "lifecycle/task_file.h"
#include "orbi/data/message.h"
#include "tesselibs/feature_state.h"
#include "tesselibs/testing/captured_log.h"

namespace Com::Tessel::Cis::TasksSvc {
namespace {

using ::LifeCycle::kTaskStatusFile;
using ::LifeCycle::TaskFile;
using ::Orbi::Bindings::Adapter;
using ::Orbi::Bindings::AdaptErrors;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::MethodResult;
using ::Orbi::Data::LocalizableMessage;
using Infos = std::map<std::string, Task::Info>;
using Task::Status;
using testing::Contains;
using testing::ElementsAre;

namespace fs = std::filesystem;

/// What an operation answered.
template <typename T>
struct Answer {
  std::optional<T> result;
  std::string error;  ///< its type's last word and its message's identifier
  std::optional<LocalizableMessage> message;
};

std::optional<LocalizableMessage> MessageOf(const ::Orbi::Data::ErrorValue& error) {
  const auto* messages = error.Find("messages")->As<::Orbi::Data::List>();
  return LocalizableMessage::FromValue(messages->items.at(0));
}

template <typename T, typename Declared = T, typename Operation, typename Input>
Answer<T> Call(Operation operation, const Input& input) {
  Answer<T> answer;
  const auto take = [&](MethodResult result) {
    AdaptErrors errors;
    if (result.output) answer.result = Adapter<T>::FromValue(*result.output, errors);
    if (!result.error) return;
    answer.message = MessageOf(*result.error);
    answer.error =
        result.error->id.substr(result.error->id.rfind('.') + 1) + " " + answer.message->id;
  };
  AsyncServiceImpl service;
  (service.*operation)(nullptr, input, AsyncResult<Declared>(::Orbi::Core::MethodCompletion(take)));
  return answer;
}

Answer<Task::Info> Get(const std::string& id) {
  return Call<Task::Info>(&AsyncServiceImpl::Get, GetInput{id});
}
Answer<Infos> List() { return Call<Infos>(&AsyncServiceImpl::List, ListInput{}); }

/// The sandboxed host's records.
class TasksServiceTest : public testing::Test {
 protected:
  TasksServiceTest() { fs::create_directories(folder_); }
  ~TasksServiceTest() override { fs::remove_all(folder_); }

  /// Makes these the only records, as helpers would.
  static void Store(const std::string& records) {
    std::ofstream(kTaskStatusFile) << "{" << records << "}";
  }

  const fs::path folder_ = fs::path(kTaskStatusFile).parent_path();
};

constexpr char kStart[] = "2026-11-21T02:12:52.123Z";
constexpr char kEnd[] = "2026-11-21T02:12:58.456Z";
const std::string kTimes =
    std::string(R"("startTime":")") + kStart + R"(","endTime":")" + kEnd + '"';

TEST_F(TasksServiceTest, TellsAPendingTaskWithoutTimesAndProgress) {
  Store(R"("id":{"status":"PENDING","progress":{"completed":0,"total":100}},"empty":{})");
  for (const char* id : {"id", "empty"}) {
    const auto info = *Get(id).result;
    EXPECT_EQ(info.status, Status::PENDING);
    EXPECT_EQ(info.description.default_message, "Lifecycle Orbi task");
    EXPECT_EQ(info.operation, "unknown");
    EXPECT_FALSE(info.user || info.start_time || info.end_time || info.progress || info.result ||
                 info.error);
  }
}

TEST_F(TasksServiceTest, TellsASucceededTaskWithItsResult) {
  Store(R"("id":{"status":"SUCCEEDED","operation":"op","user":"root",)"
        R"("progress":{"completed":100,"total":100},"result":"{\"OPTIONAL\":7}",)" +
        kTimes + "}");
  const auto info = *Get("id").result;
  EXPECT_EQ(info.status, Status::SUCCEEDED);
  EXPECT_EQ(info.operation, "op");
  EXPECT_EQ(info.user, "root");
  EXPECT_EQ(info.start_time->ToText(), kStart);
  EXPECT_EQ(info.end_time->ToText(), kEnd);
  EXPECT_EQ(info.progress->completed, 100);
  EXPECT_EQ(info.progress->message.default_message, "Lifecycle Orbi progress");
  EXPECT_EQ(*info.result, ::Orbi::Data::Value(::Orbi::Data::Some(::Orbi::Data::Value(7))));
}

TEST_F(TasksServiceTest, TellsWhyATaskFailed) {
  const auto failed = [](const std::string& member) {
    Store(R"("id":{"status":"FAILED",)" + member + kTimes + "}");
    return Get("id").result->error;
  };
  const auto helper = MessageOf(
      *failed(R"("error":{"message":{"args":["a","b"],)"
              R"("id":"com.tessel.pelorus.lifecycle.RyxImage.AddonNotFound"}},"exception":"x",)"));
  EXPECT_EQ(helper->default_message, "Addon a with version b cannot be found in depot.");
  EXPECT_THAT(helper->args, ElementsAre("a", "b"));

  CapturedLog log;
  EXPECT_FALSE(failed(R"("exception":"broken",)"));
  EXPECT_THAT(log.TakeLines(), Contains("2 Error de-serializing task exception: std::exception"));
  EXPECT_FALSE(failed(R"("exception":"7",)"));
  EXPECT_FALSE(failed(""));
  EXPECT_THAT(log.TakeLines(), Contains("3 Task id failed without any error details."));
}

TEST_F(TasksServiceTest, ListLeavesOutWhatGetCannotTell) {
  const struct {
    std::string record;
    std::string reason;
  } cases[] = {
      {R"({"status":"running","startTime":"x"})", "Task bad has invalid status running"},
      {R"({"status":"RUNNING"})", "Task bad does not have start time"},
      {R"({"status":"RUNNING","startTime":"yesterday"})",
       "Task bad has invalid start time yesterday"},
      {std::string(R"({"status":"FAILED","startTime":")") + kStart + "\"}",
       "Task bad does not have end time"},
      {R"({"status":"SUCCEEDED","result":"{",)" + kTimes + "}",
       "Result of task bad cannot be de-serialized"},
  };
  CapturedLog log;
  for (const auto& c : cases) {
    Store(R"("good":{"status":"PENDING"},"bad":)" + c.record);
    EXPECT_EQ(Get("bad").error, "error com.tessel.ryx.task.unknown.error") << c.record;
    EXPECT_THAT(log.TakeLines(), Contains("2 Failed to convert task info for bad"));
    const auto list = List();
    EXPECT_EQ(list.result->size(), 1U) << c.record;
    EXPECT_EQ(list.result->count("good"), 1U);
    EXPECT_THAT(log.TakeLines(), Contains("3 [List] :  " + c.reason + ", skipping task"));
  }
}

TEST_F(TasksServiceTest, NamesTheUnknownTaskAndCancelsNone) {
  Store(R"("other":{})");
  EXPECT_EQ(Get("id").message->default_message, "Task with given identifier 'id' is not found.");
  const auto cancelled =
      Call<::Orbi::Data::Value, void>(&AsyncServiceImpl::Cancel, CancelInput{"other"});
  EXPECT_EQ(cancelled.error, "unsupported com.tessel.ryx.task.cancel.unsupported");
}

TEST_F(TasksServiceTest, LockThatCannotBeHadMakesTheRecordsInaccessible) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto get = Get("id");
  const auto list = List();
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(get.error, "resource_inaccessible com.tessel.ryx.task.lock.error");
  EXPECT_EQ(list.error, get.error);
}

TEST_F(TasksServiceTest, FileAndDatabaseAreToldAlike) {
  const std::string features = folder_ / "feature-states";
  for (const std::string suffix : {"", ".db"}) {
    std::ofstream(features) << "task_database = " << (suffix.empty() ? "false" : "true") << "\n";
    FeatureState_InitSilentMode(features);
    const std::string path = kTaskStatusFile + suffix;
    SCOPED_TRACE(path);
    EXPECT_EQ(Get("id").error, "not_found com.tessel.ryx.task.file.notfound.error");
    EXPECT_EQ(List().result->size(), 0U);
    EXPECT_FALSE(fs::exists(path)) << "reading made it";

    fs::create_directory(path);
    EXPECT_EQ(Get("id").error, "error com.tessel.ryx.task.unknown.error");
    EXPECT_EQ(List().error, "service_unavailable com.tessel.ryx.task.unknown.error");
    fs::remove(path);

    std::ofstream(path) << std::string(5000, 'x');
    EXPECT_EQ(Get("id").error, "error com.tessel.ryx.task.parse.error");
    EXPECT_EQ(List().error, "resource_inaccessible com.tessel.ryx.task.parse.error");

    TaskFile file(kTaskStatusFile, TaskFile::Initialise::kAlways);
    file.AddTask("id", "op", 0);
    EXPECT_EQ(Get("other").error, "not_found com.tessel.ryx.task.notfound.error");
    file.StartTask("id", 0);
    const auto aborted =
        ::LifeCycle::MakeError("com.tessel.ryx.task.aborted", ::LifeCycle::ErrorKind::kError);
    file.FailTask("id", ::LifeCycle::ValueToTypedJson(*aborted), 0);
    EXPECT_EQ(Get("id").result->error, *aborted);
    EXPECT_EQ(List().result->at("id").operation, "op");
  }
  FeatureState_InitSilentMode("/nowhere");
}

}  // namespace
}  // namespace Com::Tessel::Cis::TasksSvc
