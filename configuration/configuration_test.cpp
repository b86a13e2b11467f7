#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "configmanager/config_manager.h"
#include "configmanager/testing/test_modules.h"
#include "configuration/document_tasks.h"
#include "configuration/key_tasks.h"
#include "configuration/keys_service.h"
#include "lifecycle/paths.h"
#include "lifecycle/startup.h"
#include "lifecycle/task_creation.h"
#include "lifecycle/task_file_errors.h"
#include "lifecycle/task_schedular_impl.h"
#include "lifecycle/testing/call_operation.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

namespace fs = std::filesystem;
namespace Keys = Com::Tessel::Ryx::Configuration::Components::Groups::KeysSvc;

constexpr char kOperation[] = "com.tessel.ryx.kestrel_daemon.configuration.validate$task";

/// Waits until something that another thread does has come true.
template <typename Condition>
void Await(const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
}

/// A task whose result is what it is told to make.
class FakeTask final : public ConfigManagerTaskImpl {
 public:
  FakeTask(std::string id, Conversion convert)
      : ConfigManagerTaskImpl("Fake", std::move(id)), convert_(std::move(convert)) {}

 private:
  Conversion Work() override { return convert_; }
  Orbi::Data::ErrorValue Translate(const std::exception&) const override { return {}; }
  const Conversion convert_;
};

/// The keys' service on a sandboxed host with test modules, and the process's scheduler.
class ConfigurationTest : public testing::Test {
 protected:
  ConfigurationTest() {
    Keys::AsyncServiceBinder::BindImplementation(provider_,
                                                 std::make_shared<Keys::AsyncServiceImpl>());
    fs::remove_all(fs::path(kTaskStatusFile).parent_path());
    EXPECT_EQ(TaskSchedular::Instance().initialise(), 0);
    (void)log_.TakeLines();
  }

  static TaskDB::TaskInfo Record(const std::string& id) {
    return TaskFile(kTaskStatusFile, TaskFile::Initialise::kNever).GetTasks(0).at(id);
  }

  /// A record's status, and its error's text if it has one.
  static std::string Outcome(const std::string& id) {
    const TaskDB::TaskInfo task = Record(id);
    if (task.exception.empty()) return task.status;
    return task.status + " " +
           ErrorText(*TypedJsonToValue(task.exception)->As<Orbi::Data::ErrorValue>());
  }

  /// What was logged at level 2, with "ID" for the task.
  std::string TakeLog() {
    std::string text;
    for (std::string line : log_.TakeLines()) {
      if (line[0] != '2') continue;
      if (const auto at = line.find(task_); at != line.npos) line.replace(at, task_.size(), "ID");
      text += line + "\n";
    }
    return text;
  }

  TestModules modules_;
  Orbi::Core::AsyncLocalProvider provider_;
  std::string task_ = "none";  ///< the last one
  CapturedLog log_;
};

TEST_F(ConfigurationTest, WhatKeepsATaskFromItsEndIsRecorded) {
  TaskError error;
  const auto init = [&] { return task_ = InitTask(kOperation, {}, error, ErrorKind::kError); };
  const auto run = [this](Task& task) {
    task.preRun();
    task.run();
    task.postRun();
    return Outcome(task_);
  };
  {
    FakeTask unprepared(init(), [] { return Orbi::Data::Value(); });
    const std::string hidden = kTaskStatusFile + ".hidden";
    fs::rename(kTaskStatusFile, hidden);
    EXPECT_THROW(unprepared.preRun(), TaskFileNotFoundError);
    unprepared.postRun();
    unprepared.abort();
    fs::rename(hidden, kTaskStatusFile);
    unprepared.postRun();
    EXPECT_EQ(Outcome(task_), "FAILED error task.exec.error");
    fs::remove(kTaskSyncFile);
  }
  const std::string missing =
      "TaskFile(" + kTaskStatusFile + ") not found -- No such file or directory\n";
  EXPECT_EQ(TakeLog(), "2 ConfigManagerTask[Fake:ID]: postRun failed: " + missing +
                           "2 ConfigManagerTask[Fake:ID]: abort failed. " + missing +
                           "2 ConfigManagerTask[Fake:ID]: Failed to cleanup tracking file=" +
                           kTaskSyncFile + ", errno=No such file or directory\n");
  {
    FakeTask endless(init(),
                     [] { return Orbi::Data::Value(std::numeric_limits<double>::infinity()); });
    EXPECT_EQ(run(endless), "FAILED error kestrel_daemon.configuration.create.result.error");
  }
  SetTask secretive(init(), {"time", "ntp", "leap"}, {"any", {{"note", Orbi::Data::Secret{"s"}}}});
  EXPECT_EQ(run(secretive),
            "FAILED invalid_argument configuration.components.groups.keys.invalidargument.error "
            "settings.value.secret A value that holds secrets cannot be set.");
  EXPECT_THAT(TakeLog(), testing::HasSubstr("2 [Run] Secrets cannot be set\n"));
}

TEST_F(ConfigurationTest, AnAbortedTaskEndsItsModulesAndIsRecorded) {
  const fs::path begun = fs::path(RyxConfigManager::kModulesDirectory) / "time/begun";
  modules_.SetBehaviour("time",
                        R"({"validate":{"touch":")" + begun.string() + R"(","hang":true}})");
  TaskError error;
  task_ = InitTask(kOperation, {}, error, ErrorKind::kError);
  TaskSchedularImpl schedular;
  schedular.initialise();
  schedular.submit(std::make_shared<ValidateTask>(
      task_, R"({"metadata":{"schema_version":"1.0"},"profile":{"time":{"ntp":{"leap":{}}}}})",
      false));
  Await([&] { return fs::exists(begun); });
  schedular.abort();
  EXPECT_EQ(Outcome(task_), "FAILED error task.aborted");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
  EXPECT_THAT(TakeLog(), testing::HasSubstr(
                             "2 ConfigManagerTask[Validate:ID]: Validate failed: The operation was "
                             "aborted.\n2 Worker aborting task after Run(): Validate:ID\n"));
}

TEST_F(ConfigurationTest, ATaskThatIsRefusedIsFailedByTheNextStart) {
  std::promise<void> mayEnd;
  TaskError error;
  const std::string running = InitTask(kOperation, {}, error, ErrorKind::kError);
  TaskSchedular::Instance().submit(std::make_shared<FakeTask>(running, [&] {
    mayEnd.get_future().wait();
    return Orbi::Data::Value();
  }));
  fs::remove(kTaskSyncFile);
  task_ =
      CallOperation(provider_, "com.tessel.ryx.configuration.components.groups.keys delete$task",
                    R"({"component":"time","group":"ntp","key":"leap"})");
  task_ = task_.substr(1, task_.size() - 2);  // the quotes
  EXPECT_EQ(Outcome(task_), "PENDING");
  mayEnd.set_value();
  Await([&] { return Record(running).status == "SUCCEEDED"; });
  TaskFile file(kTaskStatusFile, TaskFile::Initialise::kNever);
  FailAbandonedTasks(file);
  EXPECT_EQ(Outcome(task_), "FAILED error task.aborted");
}

}  // namespace
}  // namespace LifeCycle
