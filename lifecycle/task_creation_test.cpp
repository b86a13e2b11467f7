#include "lifecycle/task_creation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "lifecycle/access_lock.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "lifecycle/testing/call_operation.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

  const fs::path folder_ = fs::path(kTaskStatusFile).parent_path();
  TaskError error_;
};

TEST_F(TaskCreationTest, InProcessTaskIsRecordedAndHoldsTheHostUntilItEnds) {
  const std::string id = InitTask("op", error_, ErrorKind::kError);
  ASSERT_FALSE(error_);
  EXPECT_EQ(id.size(), 36U);
  EXPECT_EQ(ReadFile(kTaskSyncFile), "PRECURSOR: " + id);
  EXPECT_EQ(Tasks().at(id).status, "PENDING");
  EXPECT_EQ(Tasks().at(id).operation, "op");

  CapturedLog log;
  EXPECT_EQ(InitTask("op", error_, ErrorKind::kError), "");
  EXPECT_EQ(ErrorText(*error_), "not_allowed_in_current_state task.contention");
  EXPECT_EQ(log.TakeLines().back(),
            "2 [_CheckTaskContention]: Task sync file exists, another task is progress, 0 retries "
            "left");
  EXPECT_EQ(Tasks().size(), 1U);

  fs::remove(kTaskSyncFile);
  TaskError none;
  EXPECT_NE(InitTask("op", none, ErrorKind::kError), "");
  EXPECT_FALSE(none);
}

TEST_F(TaskCreationTest, CommandThatCannotStartIsTriedAgainAndFreesTheHost) {
  CapturedLog log;
  RunTask("/nowhere/helper", "id", error_, ErrorKind::kInternalServerError, 1);
  EXPECT_EQ(ErrorText(*error_), "internal_server_error task.exec.error");
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
  EXPECT_EQ(InitTask("op", error_, ErrorKind::kError), "");
  EXPECT_EQ(ErrorText(*error_), "error task.create.error");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
  RunTask("/usr/bin/true", "id", error_, ErrorKind::kInternalServerError, 0);
  EXPECT_EQ(ErrorText(*error_), "internal_server_error task.create.error");
  EXPECT_FALSE(fs::exists(kTaskSyncFile));
}

TEST_F(TaskCreationTest, TriesAgainAfterAFailedWrite) {
  fs::create_directories(folder_);
  fs::create_symlink("/nowhere/file", kTaskSyncFile);  // absent, and gone after it was opened
  CapturedLog log;
  EXPECT_FALSE(CheckTaskContention("id", error_, 1));
  EXPECT_EQ(log.TakeLines().back(),
            "2 [_CheckTaskContention]: Failed to write to the task sync file in task id: "
            "std::exception, 1 retries left");
  EXPECT_EQ(ReadFile(kTaskSyncFile), "PRECURSOR: id");
}

TEST_F(TaskCreationTest, SaysWhyTheHostIsNotWon) {
  CapturedLog log;
  EXPECT_TRUE(CheckTaskContention("id", error_, -1));
  EXPECT_EQ(ErrorText(*error_), "not_allowed_in_current_state task.contention");
  EXPECT_THAT(log.TakeLines(), IsEmpty()) << "there was an attempt";
  {
    const AccessLock starter(kTaskSyncFile, 0);
    EXPECT_TRUE(CheckTaskContention("id", error_, 0));
  }
  std::ofstream(folder_) << "no folder";
  EXPECT_TRUE(CheckTaskContention("id", error_, 0));
  EXPECT_THAT(log.TakeLines(),
              ElementsAre("2 [_CheckTaskContention]: Lock contention in task id, another task is "
                          "starting, 0 retries left",
                          "2 [_CheckTaskContention]: Failed to determine if the task sync file "
                          "exists: Not a directory, 0 retries left"));
}

}  // namespace
}  // namespace LifeCycle
