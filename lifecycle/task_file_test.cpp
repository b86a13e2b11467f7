#include "lifecycle/task_file.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "lifecycle/access_lock.h"
#include "lifecycle/json_task_store.h"
#include "lifecycle/startup.h"
#include "lifecycle/task_file_errors.h"
#include "orbi/date_time.h"
#include "software/command/write_to_file.h"
#include "tesselibs/feature_state.h"
#include "tesselibs/json_document.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Initialise = TaskFile::Initialise;

namespace fs = std::filesystem;

/// A folder of its own for each test.
class TaskFolder : public testing::Test {
 protected:
  TaskFolder() {
    char name[] = "/run/task-file-XXXXXX";
    folder_ = mkdtemp(name);
    path_ = folder_ / "task-status.json";
  }
  ~TaskFolder() override { fs::remove_all(folder_); }

  void WriteFile(const std::string& text) const { std::ofstream(path_) << text; }
  [[nodiscard]] std::string ReadFile() const {
    std::ostringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }
  [[nodiscard]] std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_))
      names.push_back(entry.path().filename());
    return names;
  }

  fs::path folder_;
  std::string path_;
};

enum class BackEnd { kFile, kDatabase };

/// What holds wherever records are kept.
class TaskFileTest : public TaskFolder, public testing::WithParamInterface<BackEnd> {
 protected:
  TaskFileTest() {
    const std::string features = folder_ / "feature-states";
    std::ofstream(features) << "task_database = " << (InDatabase() ? "true" : "false") << "\n";
    FeatureState_InitSilentMode(features);
  }
  ~TaskFileTest() override { FeatureState_InitSilentMode("/nowhere"); }

  [[nodiscard]] static bool InDatabase() { return GetParam() == BackEnd::kDatabase; }
  [[nodiscard]] std::string StoragePath() const { return InDatabase() ? path_ + ".db" : path_; }

  /// Makes `record` the only one, of the task "id", as another program would.
  void Store(const std::string& record) const {
    if (!InDatabase()) return WriteFile("{\"id\":" + record + "}");
    TaskFile(path_, Initialise::kAlways);
    SQLite::Database database(StoragePath(), SQLite::OPEN_READWRITE);
    SQLite::Statement row(database, "REPLACE INTO tasks VALUES ('id', ?)");
    row.bind(1, record);
    row.exec();
  }

  /// The text of the only record, with TIME for each moment in it.
  [[nodiscard]] std::string Stored() const {
    std::string text;
    if (InDatabase()) {
      SQLite::Database database(StoragePath());
      text = database.execAndGet("SELECT record FROM tasks").getString();
    } else {
      text = ReadFile();
      text = text.substr(6, text.size() - 7);
    }
    const std::string time = "Time\":\"";
    for (std::size_t at = 0; (at = text.find(time, at)) != text.npos;) {
      at += time.size();
      EXPECT_TRUE(Orbi::DateTime::Create(text.substr(at, 24))) << text;
      text.replace(at, 24, "TIME");
    }
    return text;
  }
};

INSTANTIATE_TEST_SUITE_P(BackEnds, TaskFileTest,
                         testing::Values(BackEnd::kFile, BackEnd::kDatabase),
                         [](const auto& backend) {
                           return backend.param == BackEnd::kFile ? "File" : "Database";
                         });

TEST_P(TaskFileTest, RecordFollowsItsTaskToTheEnd) {
  TaskFile file(path_, Initialise::kWhenMissing);
  file.AddTask("id", "op", 0);
  EXPECT_EQ(Stored(),
            R"({"status":"PENDING","operation":"op","progress":{"completed":0,"total":100}})");
  file.StartTask("id", 0);
  file.SetProgress("id", 100, 0);
  file.SetProgress("id", 7, 0);
  EXPECT_EQ(Stored(), R"({"status":"RUNNING","operation":"op",)"
                      R"("progress":{"completed":7,"total":100},"startTime":"TIME"})");
  file.SucceedTask("id", "\"done\"", 0);
  EXPECT_EQ(Stored(), R"({"status":"SUCCEEDED","operation":"op","progress":{"completed":100,)"
                      R"("total":100},"startTime":"TIME","endTime":"TIME","result":"\"done\""})");
  // An end after the end replaces it, and texts that are empty add nothing.
  file.AddEmptyTask("id", 0);
  file.FailTask("id", "", 0);
  EXPECT_EQ(Stored(), R"({"status":"FAILED","endTime":"TIME"})");
  file.FailTask("id", "a", 0);
  file.FailTask("id", "b", 0);
  EXPECT_EQ(Stored(), R"({"status":"FAILED","endTime":"TIME","exception":"b"})");
}

TEST_P(TaskFileTest, RefusesWhatTheRulesForbidAndLeavesTheRecord) {
  const struct {
    const char* status;
    std::function<void(TaskFile&)> change;
    const char* reason;
  } cases[] = {
      {"PENDING", [](TaskFile& f) { f.AddTask("id", "op", 0); }, "Duplicate task detected."},
      {"PENDING", [](TaskFile& f) { f.SetProgress("id", 5, 0); },
       "Task is not in valid state to perform this operation."},
      {"pending", [](TaskFile& f) { f.StartTask("id", 0); },
       "Task is not in valid state to perform this operation."},
      {"RUNNING", [](TaskFile& f) { f.StartTask("id", 0); },
       "Task is not in valid state to perform this operation."},
      {"RUNNING", [](TaskFile& f) { f.SetProgress("id", 101, 0); },
       "Invalid progress value for task."},
  };
  for (const auto& c : cases) {
    const std::string record = std::string(R"({"status":")") + c.status + "\"}";
    Store(record);
    TaskFile file(path_, Initialise::kNever);
    EXPECT_THAT([&] { c.change(file); }, testing::ThrowsMessage<std::runtime_error>(c.reason));
    EXPECT_EQ(Stored(), record);
  }
  TaskFile file(path_, Initialise::kNever);
  for (const auto& change : std::initializer_list<std::function<void()>>{
           [&] { file.StartTask("x", 0); }, [&] { file.SetProgress("x", 1, 0); },
           [&] { file.SucceedTask("x", "", 0); }, [&] { file.FailTask("x", "", 0); }}) {
    EXPECT_THAT(change, testing::ThrowsMessage<std::runtime_error>("Task does not exists."));
  }
}

TEST_P(TaskFileTest, KeepsMembersThatItDoesNotKnow) {
  const std::string unknown =
      R"("a":-1,"b":18446744073709551615,"c":2.5,"d":[null,true,{"":"\u0001é"}],"e":1e300)";
  Store(R"({"status":"PENDING",)" + unknown + R"(,"progress":{"completed":-3,"speed":1}})");
  TaskFile file(path_, Initialise::kNever);
  file.StartTask("id", 0);
  file.SetProgress("id", 50, 0);
  EXPECT_EQ(Stored(), R"({"status":"RUNNING",)" + unknown +
                          R"(,"progress":{"completed":50,"speed":1},"startTime":"TIME"})");
}

TEST_P(TaskFileTest, EndsATaskWhateverItsRecordIs) {
  for (const char* record : {"{}", "7", "[1]", R"({"status":7,"progress":"half","endTime":[]})"}) {
    Store(record);
    TaskFile file(path_, Initialise::kNever);
    file.SucceedTask("id", "", 0);
    const auto task = file.GetTasks(0).at("id");
    EXPECT_EQ(task.status, "SUCCEEDED") << record;
    EXPECT_EQ(task.completed, 100) << record;
    EXPECT_NE(task.endTime, "") << record;
  }
}

TEST_P(TaskFileTest, ListsByIdentifierAndLogsInTheOrderOfCreation) {
  TaskFile file(path_, Initialise::kWhenMissing);
  for (const char* id : {"b", "abcdefgh2", "abcdefgh1", "a"}) file.AddTask(id, id, 0);
  file.AddEmptyTask("b", 0);
  CapturedLog log;
  std::vector<std::string> operations;
  for (const auto& [id, task] : file.GetTasks(0)) operations.push_back(id + "=" + task.operation);
  EXPECT_THAT(operations, ElementsAre("a=a", "abcdefgh1=abcdefgh1", "abcdefgh2=abcdefgh2", "b="));
  EXPECT_THAT(log.TakeLines(),
              ElementsAre("5 Process task b", "2 Task has no status", "5 Process task abcdefgh2",
                          "5 Process task abcdefgh1", "5 Process task a"));
}

TEST_P(TaskFileTest, MissingIsToldToReadersAndMadeForNewTasks) {
  const TaskFile reader(path_, Initialise::kNever);
  EXPECT_THROW(static_cast<void>(reader.GetTasks(0)), TaskFileNotFoundError);
  EXPECT_FALSE(fs::exists(StoragePath()));
  TaskFile(path_, Initialise::kWhenMissing);
  EXPECT_THAT(reader.GetTasks(0), IsEmpty());
  fs::remove_all(folder_);
  TaskFile(path_, Initialise::kWhenMissing).AddTask("id", "op", 0);
  EXPECT_EQ(reader.GetTasks(0).size(), 1U);
}

TEST_P(TaskFileTest, UnreadableIsToldUntilStartUpMakesItAnew) {
  std::ofstream(StoragePath()) << std::string(5000, 'x');
  TaskFile file(path_, Initialise::kWhenMissing);
  EXPECT_THROW(static_cast<void>(file.GetTasks(0)), JsonParseError);
  EXPECT_THROW(file.AddTask("id", "op", 0), JsonParseError);
  TaskFile(path_, Initialise::kAlways);
  EXPECT_THAT(Files(), testing::Contains(testing::MatchesRegex(".*\\.[0-9]{8}T[0-9]{6}Z")));
  file.AddTask("id", "op", 0);
  TaskFile(path_, Initialise::kAlways);
  EXPECT_EQ(file.GetTasks(0).size(), 1U);
}

TEST_P(TaskFileTest, UnreadableRowCostsNoOtherTask) {
  if (!InDatabase()) return;  // the file is one text
  TaskFile file(path_, Initialise::kAlways);
  for (const char* id : {"a", "bad", "z"}) file.AddTask(id, "op", 0);
  SQLite::Database(StoragePath(), SQLite::OPEN_READWRITE)
      .exec("UPDATE tasks SET record = '{\"sta' WHERE id = 'bad'");
  CapturedLog log;
  TaskFile(path_, Initialise::kAlways);
  file.ChangeAll([](const auto&, auto&, auto&) { return false; }, 0);
  EXPECT_EQ(file.GetTasks(0).size(), 2U);
  const std::string told =
      "3 Record of task bad cannot be read: Missing a closing quotation mark in string., skipping "
      "task";
  EXPECT_THAT(log.TakeLines(), ElementsAre(told, "5 Process task a", told, "5 Process task z"));
  EXPECT_EQ(file.GetTask("a", 0)->status, "PENDING");
  EXPECT_THROW(static_cast<void>(file.GetTask("bad", 0)), JsonParseError);
  EXPECT_THAT(log.TakeLines(), ElementsAre("5 Process task a"));
  file.AddEmptyTask("bad", 0);
  EXPECT_EQ(file.GetTasks(0).size(), 3U);
}

TEST_P(TaskFileTest, StartUpFailsWhatNoThreadWillFinish) {
  TaskFile file(path_, Initialise::kAlways);
  const std::string gone = "00000000-0000-4000-8000-00000000000";
  const std::pair<std::string, const char*> operations[] = {
      {gone + "1", "com.tessel.ryx.kestrel_daemon.software.scan$task"},
      {gone + "2", "com.tessel.ryx.kestrel_daemon.configurations.apply$task"},
      {"document", "com.tessel.ryx.kestrel_daemon.configuration.apply$task"},
      {"ended", "com.tessel.ryx.kestrel_daemon.configuration.apply$task"},
      {"foreign", "com.tessel.ryx.kestrel_daemon.software.scan$task"},
      {"key", "com.tessel.ryx.configuration.components.groups.keys.set$task"}};
  for (const auto& [id, operation] : operations) {
    file.AddTask(id, operation, 0);
    file.StartTask(id, 0);
  }
  file.SucceedTask("ended", "", 0);
  file.AddEmptyTask(gone + "3", 0);  // it could not be started
  FailAbandonedTasks(file);
  std::string statuses;
  for (const auto& [id, task] : file.GetTasks(0)) statuses += id + "=" + task.status + " ";
  EXPECT_EQ(statuses, gone + "1=FAILED " + gone + "2=FAILED " + gone +
                          "3= document=FAILED ended=SUCCEEDED foreign=RUNNING key=FAILED ");
  EXPECT_THAT(file.GetTasks(0).at("key").exception, HasSubstr("\"com.tessel.ryx.task.aborted\""));
}

/// What concerns the file alone.
class JsonTaskFileTest : public TaskFolder {};

TEST_F(JsonTaskFileTest, TellsWhyTheFileCannotBeRead) {
  const TaskFile file(path_, Initialise::kNever);
  const auto read = [&] { static_cast<void>(file.GetTasks(0)); };
  EXPECT_THAT(read, testing::ThrowsMessage<TaskFileNotFoundError>(
                        "TaskFile(" + path_ + ") not found -- No such file or directory"));
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {"", "The document is empty."},
      {"{} x", "The document root must not be followed by other values."},
      {std::string("{}\0x", 4), "The document root must not be followed by other values."},
      {"{\"id\":" + std::string(100000, '['), "Terminate parsing due to Handler error."},
  };
  for (const auto& c : cases) {
    WriteFile(c.text);
    EXPECT_THAT(read, testing::ThrowsMessage<JsonParseError>(std::string("Json Parsing Error: ") +
                                                             c.reason));
  }
  const auto unusable = [&](const char* reason) {
    return testing::ThrowsMessage<UnusableTaskFileError>("TaskFile(" + path_ + ") " + reason);
  };
  WriteFile("[]");
  EXPECT_THAT(read, unusable("is no JSON object"));
  fs::resize_file(path_, JsonDocument::kMaxDocumentSize + 1);
  EXPECT_THAT(read, unusable("is larger than can be read"));
}

TEST_F(JsonTaskFileTest, ChecksTheProgressValueBeforeItTakesTheLock) {
  WriteFile(R"({"id":{"status":"RUNNING"}})");
  TaskFile file(path_, Initialise::kNever);
  const AccessLock elsewhere(path_, 0);
  EXPECT_THROW(file.SetProgress("id", 100, 0), AccessLockError);
  EXPECT_THROW(file.SetProgress("id", 101, 0), std::runtime_error);
  EXPECT_THROW(static_cast<void>(file.GetTasks(0)), AccessLockError);
}

TEST_F(JsonTaskFileTest, FullDiskLosesNothing) {
  TaskFile file(path_, Initialise::kWhenMissing);
  file.AddTask("id", std::string(10000, 'x'), 0);
  const std::string before = ReadFile();
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit full{before.size(), limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  EXPECT_THROW(file.AddTask("other", "op", 0), FileIOError);
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(ReadFile(), before);
  EXPECT_THAT(Files(), ElementsAre("task-status.json"));
}

constexpr std::size_t kMiB = std::size_t{1} << 20;

/// What concerns files that are set aside; none is larger than three MiB.
class SetAsideTest : public TaskFolder {
 protected:
  void Add(const std::string& id) {
    store_.Add(id, TaskDB::PendingRecord("op", {}), TaskDB::OnDuplicate::kRefuse);
  }
  void Succeed(const std::string& id, std::size_t size) {
    store_.Change(id, TaskDB::Succeed('"' + std::string(size, 'x') + '"'));
  }
  /// Makes the file so full that no task can be added to it.
  void Fill(const char* status) {
    WriteFile(R"({"old":{"status":")" + std::string(status) +
              R"("},"filler":{"status":"SUCCEEDED","result":")" +
              std::string(3 * kMiB - 10'000, 'x') + R"("},"last":{"status":"SUCCEEDED"}})");
  }
  [[nodiscard]] std::string Ids() const {
    std::string ids;
    for (const auto& [id, task] : TaskFile(path_, Initialise::kNever).GetTasks(0)) ids += id + " ";
    return ids;
  }
  /// What the files hold that were set aside, in the order of their names.
  [[nodiscard]] std::vector<std::string> Aside() const {
    std::vector<std::string> names = Files();
    std::ranges::sort(names);
    std::vector<std::string> contents;
    for (const std::string& name : names) {
      if (folder_ / name == path_) continue;
      EXPECT_THAT(name, testing::MatchesRegex("task-status.json.[0-9]{8}T[0-9]{6}Z(-[0-9]+)?"));
      std::ostringstream text;
      text << std::ifstream(folder_ / name).rdbuf();
      contents.push_back(text.str());
    }
    return contents;
  }

  JsonTaskStore store_{path_, 0, 3 * kMiB};
  CapturedLog log_;
};

TEST_F(SetAsideTest, FullFileGoesOnWithWhatIsStillAskedFor) {
  const std::function<void()> changes[] = {[&] { Add("new"); }, [&] { Succeed("old", kMiB); }};
  const struct {
    const char* status;
    std::size_t change;
    const char* goesOn;
  } cases[] = {{"RUNNING", 0, "last new old "},
               {"FAILED", 0, "last new "},
               {"RUNNING", 1, "last old "},
               {"FAILED", 1, "last old "}};
  std::vector<std::string> before;
  for (const auto& c : cases) {  // all in one second or two: no name is used twice
    Fill(c.status);
    chmod(path_.c_str(), 0640);
    before.push_back(ReadFile());
    (void)log_.TakeLines();
    changes[c.change]();
    EXPECT_EQ(Ids(), c.goesOn) << c.status;
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0640));
    EXPECT_THAT(log_.TakeLines(),
                testing::Contains(testing::StartsWith("2 Task file " + path_ +
                                                      " has no room left, set aside as ")));
  }
  EXPECT_THAT(Aside(), testing::UnorderedElementsAreArray(before));
  EXPECT_THROW(Succeed("old", 3 * kMiB), std::runtime_error);  // there is no file for that
  EXPECT_EQ(Ids(), "last old ");
}

TEST_F(SetAsideTest, UnusableFileIsKeptWhoeverMeetsIt) {
  const std::string large = R"({"old":{"status":"RUNNING","result":")" + std::string(100, 'x') +
                            R"("},"filler":")" + std::string(3 * kMiB, 'x') + R"(","last":{}})";
  const std::pair<std::string, std::string> cases[] = {
      {large, "last old "}, {large + "x", ""}, {"[1]", ""}, {"5", ""}, {"null", ""}};
  std::vector<std::string> before;
  for (const auto& [text, goesOn] : cases) {
    WriteFile(text);
    store_.Initialise();
    EXPECT_EQ(Ids(), goesOn) << text.substr(0, 10);
    WriteFile(text);
    Add("new");
    EXPECT_EQ(Ids(), goesOn.empty() ? "new " : "last new old ") << text.substr(0, 10);
    before.insert(before.end(), 2, text);
  }
  WriteFile(large);
  Succeed("old", 0);
  WriteFile("{] what nobody can parse");
  store_.Initialise();
  EXPECT_EQ(ReadFile(), "{}");
  before.insert(before.end(), {large, "{] what nobody can parse"});
  EXPECT_THAT(Aside(), testing::UnorderedElementsAreArray(before));
}

TEST_F(SetAsideTest, FullDiskLeavesTheFullFileAlone) {
  Fill("RUNNING");
  const std::string before = ReadFile();
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit full{10, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  EXPECT_THROW(Add("new"), FileIOError);
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(ReadFile(), before);
  EXPECT_THAT(Files(), ElementsAre("task-status.json"));
}

/// Runs a process that changes the records over and over, and kills it after some changes.
void KillWriter(const std::string& path, int changes) {
  int progress[2];
  ASSERT_EQ(pipe(progress), 0);
  const pid_t child = fork();
  if (child == 0) {
    TaskFile file(path, Initialise::kNever);
    for (unsigned i = 0; write(progress[1], "", 1) == 1; ++i)
      file.SetProgress("running", i % 101, 0);
  }
  char byte;
  for (int i = 0; i <= changes; ++i) EXPECT_EQ(read(progress[0], &byte, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(progress[0]);
  close(progress[1]);
}

TEST_F(JsonTaskFileTest, KilledWriterLeavesEveryRecordOfThousands) {
  constexpr std::size_t kTasks = 10000;
  {
    std::ofstream file(path_);
    file << R"({"running":{"status":"RUNNING"})";
    for (std::size_t i = 1; i < kTasks; ++i)
      file << ",\"" << i << R"(":{"status":"SUCCEEDED","result":"{}"})";
    file << "}";
  }
  TaskFile file(path_, Initialise::kNever);
  for (int changes = 0; changes < 6; ++changes) {
    KillWriter(path_, changes);
    EXPECT_EQ(file.GetTasks(0).size(), kTasks);
  }
  std::ofstream(path_ + ".new-1") << "{";  // in case that none was killed while it wrote
  TaskFile(path_, Initialise::kAlways);
  EXPECT_THAT(Files(), ElementsAre("task-status.json"));
}

}  // namespace
}  // namespace LifeCycle
