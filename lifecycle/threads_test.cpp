// The task framework in the hands of as many threads as there are request threads, and more: for
// ThreadSanitizer to judge, and for whoever finds a task of theirs lost.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lifecycle/helper_end.h"
#include "lifecycle/host_claim.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_creation.h"
#include "lifecycle/task_file.h"
#include "lifecycle/task_schedular_impl.h"
#include "lifecycle/testing/call_operation.h"
#include "lifecycle/testing/quick_waits.h"
#include "tesselibs/feature_state.h"

namespace LifeCycle {
namespace {

namespace fs = std::filesystem;

constexpr int kRequestThreads = 8;
constexpr int kRounds = 12;
const std::string kHelperTask = "00000000-0000-4000-8000-000000000001";

class ThreadsTest : public testing::TestWithParam<const char*> {
 protected:
  ThreadsTest() {
    fs::create_directories(folder_);
    std::ofstream(folder_ / "feature-states") << "task_database = " << GetParam() << "\n";
    FeatureState_InitSilentMode((folder_ / "feature-states").string());
    Records().AddEmptyTask(kHelperTask, 0);
  }
  ~ThreadsTest() override {
    FeatureState_InitSilentMode("/nowhere");
    fs::remove_all(folder_);
  }

  static TaskFile Records() { return {kTaskStatusFile, TaskFile::Initialise::kWhenMissing}; }

  /// Runs a task from its creation to its end, if no other has the host.
  void RunTask() {
    TaskError error;
    const std::string id = InitTask("op", {}, error, ErrorKind::kError);
    if (error) {
      EXPECT_EQ(ErrorText(*error), "not_allowed_in_current_state task.contention");
      return;
    }
    EXPECT_EQ(++tasksAtOnce_, 1);
    TaskFile file = Records();
    file.StartTask(id, kStatusFileRetries);
    file.SetProgress(id, 50, kStatusFileRetries);
    EXPECT_EQ(file.GetTask(id, kStatusFileRetries)->completed, 50);
    file.SucceedTask(id, "7", kStatusFileRetries);
    --tasksAtOnce_;
    ++ended_;
    EXPECT_EQ(ReleaseHost(kTaskMarker, id), 0);
  }

  const QuickWaits waits_;
  const fs::path folder_ = fs::path(kTaskStatusFile).parent_path();
  std::atomic<int> tasksAtOnce_ = 0;
  std::atomic<int> ended_ = 0;
};

INSTANTIATE_TEST_SUITE_P(BackEnds, ThreadsTest, testing::Values("false", "true"),
                         [](const auto& inDatabase) {
                           return std::string(inDatabase.param) == "true" ? "Database" : "File";
                         });

TEST_P(ThreadsTest, NoTaskIsLostAndNoTwoHaveTheHost) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < kRequestThreads; ++i) {
    threads.emplace_back([this] {
      for (int round = 0; round < kRounds; ++round) {
        RunTask();
        EXPECT_GE(Records().GetTasks(kStatusFileRetries).size(), 1U);
      }
    });
  }
  threads.emplace_back([] {
    const auto observer = EndOfHelper({kHelperTask, kApplyMarker, {}});
    for (int look = 0; look < 100 && !observer(); ++look)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  threads.clear();
  const auto tasks = Records().GetTasks(0);
  EXPECT_EQ(tasks.size(), 1U + static_cast<std::size_t>(ended_));
  EXPECT_GT(ended_, 0);
  for (const auto& [id, task] : tasks)
    EXPECT_EQ(task.status, id == kHelperTask ? "FAILED" : "SUCCEEDED");
}

/// Counts itself while it runs.
class CountedTask final : public Task {
 public:
  CountedTask(std::atomic<int>& atOnce, std::atomic<int>& ended) : atOnce_(atOnce), ended_(ended) {}
  void preRun() override { EXPECT_EQ(++atOnce_, 1); }
  void run() override { std::this_thread::yield(); }
  void postRun() override {
    --atOnce_;
    ++ended_;
  }
  [[nodiscard]] bool isAbortRequested() const override { return false; }
  void requestAbort() override {}
  void abort() override {}
  [[nodiscard]] std::string label() const override { return "T:1"; }

 private:
  std::atomic<int>& atOnce_;
  std::atomic<int>& ended_;
};

TEST(SchedularThreadsTest, EveryTaskThatIsTakenRunsAndOneAtATime) {
  std::atomic<int> atOnce = 0, ended = 0, taken = 0;
  {
    TaskSchedularImpl schedular;
    schedular.initialise();
    std::vector<std::jthread> threads;
    for (int i = 0; i < kRequestThreads; ++i) {
      threads.emplace_back([&] {
        for (int round = 0; round < 100; ++round) {
          if (schedular.submit(std::make_shared<CountedTask>(atOnce, ended)) == 0) ++taken;
          schedular.awaitEnding();
        }
      });
    }
    threads.clear();
    while (ended != taken) std::this_thread::yield();
  }
  EXPECT_GT(taken, 0);
  EXPECT_EQ(ended, taken);
}

}  // namespace
}  // namespace LifeCycle
