#include "daemon/request_threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include "daemon/threaded_provider.h"
#include "orbi/core/testing/echo_provider.h"

namespace Host::Settings::SettingsApi {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

/// Work that begins, and ends when it is told to.
class Gate {
 public:
  RequestThreads::Work Work() {
    return [this] {
      ++begun_;
      opened_.wait();
      ++ended_;
    };
  }
  void Open() { open_.set_value(); }
  bool WaitForBegun(int count) const { return WaitFor(begun_, count); }
  bool WaitForEnded(int count) const { return WaitFor(ended_, count); }
  int Begun() const { return begun_; }

 private:
  static bool WaitFor(const std::atomic<int>& counter, int count) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (counter != count && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(1ms);
    return counter == count;
  }

  std::promise<void> open_;
  std::shared_future<void> opened_ = open_.get_future().share();
  std::atomic<int> begun_ = 0, ended_ = 0;
};

TEST(RequestThreadsTest, APeerHoldsHalfOfTheThreadsAndAnotherFindsOneAtOnce) {
  RequestThreads threads;
  Gate gate;
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(threads.Submit("greedy", gate.Work()));
  ASSERT_TRUE(gate.WaitForBegun(4));
  std::promise<void> served;
  ASSERT_TRUE(threads.Submit("other", [&] { served.set_value(); }));
  EXPECT_EQ(served.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(gate.Begun(), 4);
  gate.Open();
  EXPECT_TRUE(gate.WaitForEnded(20));
}

TEST(RequestThreadsTest, WhatFindsNoPlaceIsRefusedAndAnothersPlaceIsKept) {
  RequestThreads threads;
  Gate gate;
  int taken = 0;
  while (taken < 200 && threads.Submit("greedy", gate.Work())) ++taken;
  EXPECT_GE(taken, 64);
  EXPECT_LE(taken, 64 + 4 + 4);  // what had begun before all were submitted left its place
  EXPECT_TRUE(threads.Submit("other", [] {}));
  gate.Open();
  EXPECT_TRUE(gate.WaitForEnded(taken));
}

TEST(RequestThreadsTest, WorkThatThrowsHarmsNobody) {
  RequestThreads threads;
  ASSERT_TRUE(threads.Submit("peer", [] { throw std::runtime_error("broken"); }));
  ASSERT_TRUE(threads.Submit("peer", [] { throw 1; }));
  std::promise<void> served;
  ASSERT_TRUE(threads.Submit("peer", [&] { served.set_value(); }));
  EXPECT_EQ(served.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(RequestThreadsTest, IdleThreadsEndAndComeAgain) {
  RequestThreads threads({.idleTime = 1ms});
  std::set<std::thread::id> seen;
  for (int i = 0; i < 100; ++i) {
    std::promise<void> served;
    ASSERT_TRUE(threads.Submit("peer", [&] { served.set_value(); }));
    ASSERT_EQ(served.get_future().wait_for(kPatience), std::future_status::ready);
    if (i % 10 == 0) std::this_thread::sleep_for(3ms);
  }
}

TEST(RequestThreadsTest, StopDropsWhatWaitsAndAwaitsWhatRuns) {
  constexpr std::size_t kEnough = 1 << 30;  // only the stop refuses work
  RequestThreads threads({.waiting = kEnough, .waitingOfParty = kEnough});
  Gate gate;
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(threads.Submit("peer", gate.Work()));
  ASSERT_TRUE(gate.WaitForBegun(4));
  const auto token = std::make_shared<int>();
  ASSERT_TRUE(threads.Submit("peer", [token] { ADD_FAILURE(); }));
  std::thread stop([&] { threads.Stop(); });
  while (threads.Submit("other", [] {})) std::this_thread::yield();
  gate.Open();
  stop.join();
  EXPECT_TRUE(gate.WaitForEnded(4));
  EXPECT_EQ(token.use_count(), 1);
}

TEST(ThreadedProviderTest, CallsOfServicesThatWaitLeaveTheCallersThread) {
  /// Tells which thread it was called on.
  struct Recorder : Orbi::Core::AsyncApiProvider {
    void Invoke(const Orbi::Core::MethodIdentifier&, Orbi::Data::Value,
                Orbi::Core::ExecutionContextPtr, Orbi::Core::MethodCompletion completion) override {
      thread.set_value(std::this_thread::get_id());
      completion({});
    }
    std::promise<std::thread::id> thread;
  };
  for (const bool waits : {true, false}) {
    RequestThreads threads;
    const auto recorder = std::make_shared<Recorder>();
    ThreadedProvider provider(recorder, {"waits"}, threads);
    provider.Invoke({waits ? "waits" : "does.not", "get"}, {},
                    std::make_shared<Orbi::Core::ExecutionContext>(),
                    Orbi::Core::MethodCompletion([](const Orbi::Core::MethodResult&) {}));
    EXPECT_EQ(recorder->thread.get_future().get() != std::this_thread::get_id(), waits);
  }
}

TEST(ThreadedProviderTest, CallsThatFindNoPlaceAreToldSo) {
  RequestThreads threads;
  threads.Stop();
  ThreadedProvider provider(std::make_shared<Orbi::Core::EchoProvider>(), {"waits"}, threads);
  const auto result =
      Call(provider, {"waits", "get"}, "input", std::make_shared<Orbi::Core::ExecutionContext>());
  EXPECT_EQ(result.error.value().id, "com.tessel.orbi.std.errors.service_unavailable");
}

}  // namespace
}  // namespace Host::Settings::SettingsApi
