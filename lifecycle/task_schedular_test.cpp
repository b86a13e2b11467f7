#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "lifecycle/task_schedular_impl.h"
#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {
namespace {

using testing::ElementsAre;

/// An event that one thread announces to others.
class Event {
 public:
  void Announce() {
    const std::lock_guard lock(mutex_);
    happened_ = true;
    changed_.notify_all();
  }
  void Await() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return happened_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool happened_ = false;
};

/// What became of a task, each phase by a letter: p(reRun), r(un), P(ostRun), a(bort).
struct Fate {
  std::mutex mutex;
  std::string phases;
  Event gone;

  void Add(char phase) {
    const std::lock_guard lock(mutex);
    phases += phase;
  }
  std::string Phases() {
    const std::lock_guard lock(mutex);
    return phases;
  }
};

class FakeTask final : public Task {
 public:
  using Work = std::function<void(FakeTask&)>;
  static void Nothing(FakeTask&) {}

  explicit FakeTask(std::shared_ptr<Fate> fate, Work run = Nothing, Work preRun = Nothing,
                    Work postRun = Nothing)
      : fate_(std::move(fate)),
        run_(std::move(run)),
        pre_(std::move(preRun)),
        post_(std::move(postRun)) {}
  ~FakeTask() override { fate_->gone.Announce(); }

  void preRun() override { Do('p', pre_); }
  void run() override { Do('r', run_); }
  void postRun() override { Do('P', post_); }
  [[nodiscard]] bool isAbortRequested() const override { return requested_; }
  void requestAbort() override { requested_ = true; }
  void abort() override { fate_->Add('a'); }
  [[nodiscard]] std::string label() const override { return "T:1"; }

 private:
  void Do(char phase, const Work& work) {
    fate_->Add(phase);
    work(*this);
  }

  const std::shared_ptr<Fate> fate_;
  const Work run_, pre_, post_;
  std::atomic<bool> requested_ = false;
};

/// Does what the task does until it is asked to end.
void UntilAborted(const FakeTask& task) {
  while (!task.isAbortRequested()) std::this_thread::yield();
}

class TaskSchedularTest : public testing::Test {
 protected:
  template <typename... Phases>
  int Submit(Phases... phases) {
    return schedular_.submit(std::make_shared<FakeTask>(fate_, std::move(phases)...));
  }

  CapturedLog log_;
  std::shared_ptr<Fate> fate_ = std::make_shared<Fate>();
  Event begun_;
  Event mayEnd_;
  const FakeTask::Work wait_ = [this](FakeTask&) {
    begun_.Announce();
    mayEnd_.Await();
  };
  TaskSchedularImpl schedular_;
};

TEST_F(TaskSchedularTest, RunsOneTaskAtATime) {
  EXPECT_EQ(Submit(), 2);
  EXPECT_EQ(schedular_.initialise(), 0);
  EXPECT_EQ(schedular_.initialise(), 0);
  fate_ = std::make_shared<Fate>();
  EXPECT_EQ(Submit(wait_), 0);
  begun_.Await();
  const auto refused = std::make_shared<Fate>();
  EXPECT_EQ(schedular_.submit(std::make_shared<FakeTask>(refused)), 2);
  refused->gone.Await();
  mayEnd_.Announce();
  fate_->gone.Await();
  EXPECT_EQ(fate_->Phases(), "prP");
  EXPECT_EQ(Submit(), 0);  // a task that is gone has made room
  schedular_.abort();
  EXPECT_EQ(Submit(), 2);
  EXPECT_EQ(schedular_.initialise(), 1);
  EXPECT_EQ(refused->Phases(), "");
  EXPECT_THAT(
      log_.TakeLines(),
      testing::IsSupersetOf({"2 TaskSchedular in state=0, stopped=0, doesn't accept requests",
                             "5 TaskSchedular started.", "5 TaskSchedular received new task: T:1",
                             "5 Task dispatched: T:1",
                             "2 TaskSchedular in state=3, stopped=0, doesn't accept requests",
                             "5 Task completed: T:1", "5 TaskSchedular abort requested."}));
}

TEST_F(TaskSchedularTest, WhoSawATaskEndFindsItGone) {
  schedular_.initialise();
  for (int round = 0; round < 200; ++round) {
    Event recorded;
    fate_ = std::make_shared<Fate>();
    Submit(FakeTask::Nothing, FakeTask::Nothing, [&](FakeTask&) { recorded.Announce(); });
    recorded.Await();
    schedular_.awaitEnding();
    ASSERT_EQ(fate_.use_count(), 1);
  }
}

TEST_F(TaskSchedularTest, GoesOnAfterWhatTasksThrow) {
  const FakeTask::Work fail = [](FakeTask&) { throw std::runtime_error("no luck"); };
  schedular_.initialise();
  Submit(fail);
  fate_->gone.Await();
  EXPECT_EQ(fate_->Phases(), "prP");
  fate_ = std::make_shared<Fate>();
  Submit(FakeTask::Nothing, fail, fail);
  fate_->gone.Await();
  EXPECT_EQ(fate_->Phases(), "pP");
  EXPECT_THAT(log_.TakeLines(), testing::IsSupersetOf({"2 Task: T:1 failed to run: no luck",
                                                       "2 PostRun script failed to run: no luck"}));
}

TEST_F(TaskSchedularTest, StopAsksARunningTaskToEnd) {
  struct {
    FakeTask::Work run, preRun;
    const char* phases;
    const char* line;
  } const cases[] = {
      {UntilAborted, FakeTask::Nothing, "pra", "2 Worker aborting task after Run(): T:1"},
      {FakeTask::Nothing, UntilAborted, "pa", "2 Worker aborting task before Run(): T:1"},
  };
  for (const auto& c : cases) {
    TaskSchedularImpl schedular;
    const auto fate = std::make_shared<Fate>();
    Event begun;
    const auto announced = [&begun](const FakeTask::Work& work) {
      return [&begun, work](FakeTask& task) {
        begun.Announce();
        work(task);
      };
    };
    schedular.initialise();
    schedular.submit(std::make_shared<FakeTask>(fate, announced(c.run), announced(c.preRun)));
    begun.Await();
    if (c.phases[1] == 'r')
      while (fate->Phases() != "pr") std::this_thread::yield();
    (void)log_.TakeLines();
    schedular.abort();
    EXPECT_EQ(fate->Phases(), c.phases);
    auto lines = log_.TakeLines();
    std::erase(lines, "5 Task dispatched: T:1");  // comes when the task may have begun
    EXPECT_THAT(lines, ElementsAre("5 TaskSchedular abort requested.", "5 TaskSchedular stopped.",
                                   "5 Abort task requested: T:1", c.line));
  }
}

TEST_F(TaskSchedularTest, ATaskThatDoesNotEndIsRecordedAsAbortedOnce) {
  TaskSchedularImpl impatient(std::chrono::milliseconds(50));
  impatient.initialise();
  impatient.submit(std::make_shared<FakeTask>(fate_, wait_));
  begun_.Await();
  std::thread stopper([&] { impatient.abort(); });
  while (fate_->Phases() != "pra") std::this_thread::yield();
  mayEnd_.Announce();
  stopper.join();
  EXPECT_EQ(fate_->Phases(), "pra");
  EXPECT_THAT(
      log_.TakeLines(),
      testing::IsSupersetOf({"2 Task did not respond to abort request: T:1", "2 Task aborted: T:1",
                             "2 Worker aborting task after Run(): T:1"}));
}

TEST_F(TaskSchedularTest, SubmittingWhileStoppingEndsOneWayOrTheOther) {
  for (int round = 0; round < 200; ++round) {
    TaskSchedularImpl schedular;
    const auto fate = std::make_shared<Fate>();
    schedular.initialise();
    int answer = -1;
    std::thread submitter(
        [&] { answer = schedular.submit(std::make_shared<FakeTask>(fate, UntilAborted)); });
    schedular.abort();
    submitter.join();
    fate->gone.Await();
    EXPECT_THAT(fate->Phases(), testing::AnyOf("", "pa", "pra"));
    EXPECT_TRUE(answer == 0 || fate->Phases().empty());
  }
}

}  // namespace
}  // namespace LifeCycle
