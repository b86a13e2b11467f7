#include "lifecycle/task_creation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "lifecycle/helper_start.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "lifecycle/testing/call_operation.h"
#include "lifecycle/testing/quick_waits.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;

namespace fs = std::filesystem;

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// The sandboxed host, idle and without tasks.
class TaskCreationTest : public testing::Test {
 protected:
  ~TaskCreationTest() override { fs::remove_all(folder_); }

  static std::map<std::string, TaskDB::TaskInfo> Tasks() {
    return TaskFile(kTaskStatusFile, TaskFile::Initialise::kNever).GetTasks(0);
  }

  /// @return the error's text, or nothing when the command runs
  static std::string StartTask(const std::string& command, int retries) {
    const TaskError error = RunTask(
        kImageManagerTask, {"id", command, {}, ErrorKind::kInternalServerError, retries, {}});
    return error ? ErrorText(*error) : "";
  }

  const QuickWaits waits_;
  const fs::path folder_ = fs::path(kTaskStatusFile).parent_path();
  TaskError error_;
};

TEST_F(TaskCreationTest, InProcessTaskIsRecordedAndHoldsTheHostUntilItEnds) {
  const std::string id = InitTask("op", {"alice", "192.0.2.7"}, error_, ErrorKind::kError);
  ASSERT_FALSE(error_);
  EXPECT_EQ(id.size(), 36U);
  EXPECT_EQ(ReadFile(kTaskSyncFile), "PRECURSOR: " + id);
  EXPECT_EQ(Tasks().at(id).status, "PENDING");
  EXPECT_EQ(Tasks().at(id).operation, "op");
  EXPECT_EQ(Tasks().at(id).user, "alice");

  CapturedLog log;
  EXPECT_EQ(InitTask("op", {"alice", "192.0.2.7"}, error_, ErrorKind::kError), "");
  EXPECT_EQ(ErrorText(*error_), "not_allowed_in_current_state task.contention");
  EXPECT_EQ(log.TakeLines().back(),
            "2 [_CheckTaskContention]: Task sync file exists, another task is progress, 0 retries "
            "left");
  EXPECT_EQ(Tasks().size(), 1U);

  fs::remove(kTaskSyncFile);
  TaskError none;
  EXPECT_NE(InitTask("op", {"alice", "192.0.2.7"}, none, ErrorKind::kError), "");
  EXPECT_FALSE(none);
}

TEST_F(TaskCreationTest, CommandThatCannotStartIsTriedAgainAndFreesTheHost) {
  CapturedLog log;
  EXPECT_EQ(StartTask("/nowhere/helper", 1), "internal_server_error task.exec.error");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
  EXPECT_EQ(ReadFile(kTaskStatusFile), R"({"id":{}})");
  const auto failed = [](const std::string& left) {
    return Contains(AllOf(HasSubstr("2 [RunTask]: Failed to exec command for task id: "),
                          HasSubstr(", " + left + " retries left")));
  };
  EXPECT_THAT(log.TakeLines(), AllOf(failed("1"), failed("0")));
}

TEST_F(TaskCreationTest, TaskThatCannotBeRecordedFreesTheHost) {
  fs::create_directories(folder_);
  std::ofstream(kTaskStatusFile) << "{";
  EXPECT_EQ(InitTask("op", {"alice", "192.0.2.7"}, error_, ErrorKind::kError), "");
  EXPECT_EQ(ErrorText(*error_), "error task.create.error");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
  EXPECT_EQ(StartTask("/usr/bin/true", 0), "internal_server_error task.create.error");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
}

}  // namespace
}  // namespace LifeCycle
