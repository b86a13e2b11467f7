#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/testing/test_modules.h"
#include "configuration/configuration_service.h"
#include "configuration/document_tasks.h"
#include "configuration/key_tasks.h"
#include "configuration/keys_service.h"
#include "configuration/retired_services.h"
#include "lifecycle/paths.h"
#include "lifecycle/startup.h"
#include "lifecycle/task_creation.h"
#include "lifecycle/task_file_errors.h"
#include "lifecycle/task_schedular_impl.h"
#include "lifecycle/testing/call_operation.h"
#include "orbi/json/writer.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

namespace fs = std::filesystem;
namespace Document = Com::Tessel::Ryx::KestrelDaemon::ConfigurationSvc;
namespace Keys = Com::Tessel::Ryx::Configuration::Components::Groups::KeysSvc;
namespace OlderConfig = Com::Tessel::Ryx::HostSettings::ConfigSvc;
namespace OlderKeys = Com::Tessel::Ryx::HostSettings::Config::Components::KeysSvc;

constexpr char kOperation[] = "com.tessel.ryx.kestrel_daemon.configuration.validate$task";

void ReplaceAll(std::string& text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    text.replace(at, what.size(), by);
}

std::string Quoted(std::string_view text) {
  std::string quoted;
  Orbi::Protocol::Json::AppendJsonString(text, quoted);
  return quoted;
}

std::string TakeWord(std::string& text) {
  const std::string word = text.substr(0, text.find(' '));
  text.erase(0, word.size() + 1);
  return word;
}

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

/// The services on a sandboxed host with test modules, and the process's scheduler.
class ConfigurationTest : public testing::Test {
 protected:
  ConfigurationTest() {
    Bind<Document::AsyncServiceBinder, Document::ConfigurationServiceImpl>();
    Bind<Keys::AsyncServiceBinder, Keys::AsyncServiceImpl>();
    Bind<OlderConfig::AsyncServiceBinder, OlderConfig::AsyncServiceImpl>();
    Bind<OlderKeys::AsyncServiceBinder, OlderKeys::AsyncServiceImpl>();
    fs::remove_all(fs::path(kTaskStatusFile).parent_path());
    EXPECT_EQ(TaskSchedular::Instance().initialise(), 0);
    (void)log_.TakeLines();
  }

  template <typename Binder, typename Service>
  void Bind() {
    Binder::BindImplementation(provider_, std::make_shared<Service>());
  }

  static TaskDB::TaskInfo Record(const std::string& id) {
    return TaskFile(kTaskStatusFile, TaskFile::Initialise::kNever).GetTasks(0).at(id);
  }

  /// A record's status with its percents or its error's text, and its result as clean JSON.
  static std::string Outcome(const std::string& id) {
    const TaskDB::TaskInfo task = Record(id);
    std::string text = task.status;
    if (task.exception.empty()) text += " " + std::to_string(task.completed);
    if (task.startTime.empty() || task.endTime.empty()) text += " without times";
    if (!task.result.empty()) text += " " + ValueToJson(*TypedJsonToValue(task.result));
    if (!task.exception.empty())
      text += " " + ErrorText(*TypedJsonToValue(task.exception)->As<Orbi::Data::ErrorValue>());
    return text;
  }

  /// @return the answer; that of an operation that starts a task is its outcome
  std::string Call(const std::string& operation, const std::string& input) {
    const std::string answer = CallOperation(provider_, "com.tessel.ryx." + operation, input);
    if (!operation.ends_with("$task") || !answer.starts_with('"')) return answer;
    task_ = answer.substr(1, answer.size() - 2);
    Await([] { return !fs::exists(kTaskSyncFile); });
    (void)TaskSchedular::Instance().initialise();  // waits until the task is quite gone
    std::string outcome = Outcome(task_);
    constexpr std::string_view kSpec = R"("spec_id":")";
    if (const auto at = outcome.find(kSpec); at != std::string::npos)
      checks_.push_back(outcome.substr(at + kSpec.size(), 36));
    return outcome;
  }

  /// @param line  COMPONENT GROUP KEY, and what to set it to
  std::string CallOnKey(const std::string& operation, std::string line) {
    std::string input;
    for (const char* field : {"component", "group", "key"})
      input += Quoted(field) + ":" + Quoted(TakeWord(line)) + ",";
    if (line.empty()) input.pop_back();
    if (!line.empty()) input += "\"value\":" + line;
    return Call("configuration.components.groups.keys " + operation, "{" + input + "}");
  }

  /// Carries out one line of a session.
  /// @return the answer, if it is a call
  std::string Execute(std::string line) {
    const std::string command = TakeWord(line);
    const std::string document = "kestrel_daemon.configuration " + command;
    if (command == "get" || command.starts_with("set$") || command.starts_with("delete$"))
      return CallOnKey(command, line);
    if (command.starts_with("host_settings")) return Call(command + " " + line, "{}");
    if (command == "export") return Call(document, "{}");
    if (command == "apply$task") return Call(document, R"({"spec_id":)" + Quoted(line) + "}");
    if (command.ends_with("$task")) {
      const bool isProfile = line.starts_with("{\"");
      if (isProfile) line = R"({"metadata":{"schema_version":"1.0"},"profile":)" + line + "}";
      return Call(document, R"({"document":)" + Quoted(line) + "}");
    }
    if (command == "log") verbose_ = line == "all";
    if (command == "behaviour" || command == "state") {
      const std::string module = TakeWord(line);
      command == "state" ? modules_.SetState(module, line) : modules_.SetBehaviour(module, line);
    }
    if (command == "sql")
      SQLite::Database(RyxConfigStore::kStorePath, SQLite::OPEN_READWRITE, 5000).exec(line);
    return "";
  }

  /// What was logged at level 2, and by tasks at any level while `verbose_`.
  std::string TakeLog() {
    std::string text;
    for (const std::string& line : log_.TakeLines())
      if (line[0] == '2' || (verbose_ && line.find("ConfigManagerTask[") != line.npos))
        text += "  ! " + line + "\n";
    ReplaceAll(text, task_, "ID");
    return text;
  }

  TestModules modules_;
  Orbi::Core::AsyncLocalProvider provider_;
  std::string task_ = "none";        ///< the last one
  std::vector<std::string> checks_;  ///< identifiers of what can be applied
  bool verbose_ = false;
  CapturedLog log_;
};

/// The file session.txt has commands; behind "=" each one's answer, behind "!" what it logs down to
/// a level. In it, ID stands for the task, CHECK1 for the first check's identifier, HOST for the
/// host's.
TEST_F(ConfigurationTest, ASessionGoesAsTold) {
  std::ifstream file(SESSION);
  std::string told, happened;
  const auto nameChecks = [this](std::string& text, bool byNumber) {
    for (std::size_t i = 0; i < checks_.size(); ++i) {
      const std::string number = "CHECK" + std::to_string(i + 1);
      ReplaceAll(text, byNumber ? checks_[i] : number, byNumber ? number : checks_[i]);
    }
  };
  for (std::string line; std::getline(file, line);) {
    told += line + "\n";
    if (line.starts_with("  ")) continue;
    happened += line + "\n";
    nameChecks(line, false);
    std::string output = Execute(line);
    output = (output.empty() ? "" : "  = " + output + "\n") + TakeLog();
    nameChecks(output, true);
    ReplaceAll(output, RyxConfigManager::GetBIOSUUID(), "HOST");
    happened += output;
  }
  EXPECT_NE(told, "");
  EXPECT_EQ(happened, told);
}

TEST_F(ConfigurationTest, WhatKeepsATaskFromItsEndIsRecorded) {
  TaskError error;
  const auto init = [&] { return task_ = InitTask(kOperation, error, ErrorKind::kError); };
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
  EXPECT_EQ(TakeLog(), "  ! 2 ConfigManagerTask[Fake:ID]: postRun failed: " + missing +
                           "  ! 2 ConfigManagerTask[Fake:ID]: abort failed. " + missing +
                           "  ! 2 ConfigManagerTask[Fake:ID]: Failed to cleanup tracking file=" +
                           kTaskSyncFile + ", errno=No such file or directory\n");
  {
    FakeTask endless(init(),
                     [] { return Orbi::Data::Value(std::numeric_limits<double>::infinity()); });
    EXPECT_EQ(run(endless), "FAILED error kestrel_daemon.configuration.create.result.error");
  }
  SetTask secretive(init(), {"time", "ntp", "leap"}, {"any", {{"note", Orbi::Data::Secret{"s"}}}});
  EXPECT_EQ(run(secretive),
            "FAILED invalid_argument configuration.components.groups.keys.invalidargument.error");
  EXPECT_THAT(TakeLog(), testing::HasSubstr("  ! 2 [Run] Secrets cannot be set\n"));
}

TEST_F(ConfigurationTest, AnAbortedTaskEndsItsModulesAndIsRecorded) {
  modules_.SetBehaviour(
      "time", "if operation == 'validate':\n  open(folder + '/begun', 'w')\n  time.sleep(600)");
  TaskError error;
  task_ = InitTask(kOperation, error, ErrorKind::kError);
  TaskSchedularImpl schedular;
  schedular.initialise();
  schedular.submit(std::make_shared<ValidateTask>(
      task_, R"({"metadata":{"schema_version":"1.0"},"profile":{"time":{"ntp":{"leap":{}}}}})",
      false));
  const fs::path begun = fs::path(RyxConfigManager::kModulesDirectory) / "time/begun";
  Await([&] { return fs::exists(begun); });
  schedular.abort();
  EXPECT_EQ(Outcome(task_), "FAILED error task.aborted");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
  EXPECT_THAT(
      TakeLog(),
      testing::HasSubstr("  ! 2 ConfigManagerTask[Validate:ID]: Validate failed: The operation was "
                         "aborted.\n  ! 2 Worker aborting task after Run(): Validate:ID\n"));
}

TEST_F(ConfigurationTest, ATaskThatIsRefusedIsFailedByTheNextStart) {
  std::promise<void> mayEnd;
  TaskError error;
  const std::string running = InitTask(kOperation, error, ErrorKind::kError);
  TaskSchedular::Instance().submit(std::make_shared<FakeTask>(running, [&] {
    mayEnd.get_future().wait();
    return Orbi::Data::Value();
  }));
  fs::remove(kTaskSyncFile);
  EXPECT_EQ(CallOnKey("delete$task", "time ntp leap"), "PENDING 0 without times");
  mayEnd.set_value();
  Await([&] { return Record(running).status == "SUCCEEDED"; });
  TaskFile file(kTaskStatusFile, TaskFile::Initialise::kNever);
  FailAbandonedTasks(file);
  EXPECT_EQ(Outcome(task_), "FAILED error task.aborted");
}

}  // namespace
}  // namespace LifeCycle
