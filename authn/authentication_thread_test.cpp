#include "authn/authentication_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Host::Settings::SettingsApi::Authn {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 20s;

TEST(AuthenticationThreadTest, OneCheckAtATimeAndPartiesTakeTurns) {
  AuthenticationThread thread({.failureTime = 1ms});
  std::mutex mutex;
  std::vector<std::string> order;
  std::promise<void> begin, all;
  std::shared_future<void> begun = begin.get_future().share();
  const auto submit = [&](const std::string& peer) {
    return thread.Submit(
        peer,
        [&, peer] {
          begun.wait();
          const std::unique_lock alone(mutex, std::try_to_lock);
          EXPECT_TRUE(alone.owns_lock()) << "two checks at a time";
          order.push_back(peer);
          return true;
        },
        [&](bool) {
          if (order.size() == 8) all.set_value();
        });
  };
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(submit("flood"));
  ASSERT_TRUE(submit("one"));
  ASSERT_TRUE(submit("two"));
  begin.set_value();
  ASSERT_EQ(all.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(order, (std::vector<std::string>{"flood", "one", "two", "flood", "flood", "flood",
                                             "flood", "flood"}));
}

/// What a check that takes so long is told, and when after its begin.
std::pair<bool, Clock::duration> Answer(AuthenticationThread& thread, const std::string& party,
                                        bool accepted, Clock::duration time) {
  std::promise<bool> answer;
  Clock::time_point begin;
  EXPECT_TRUE(thread.Submit(
      party,
      [&] {
        begin = Clock::now();
        std::this_thread::sleep_for(time);
        return accepted;
      },
      [&](bool result) { answer.set_value(result); }));
  const bool told = answer.get_future().get();
  return {told, Clock::now() - begin};
}

TEST(AuthenticationThreadTest, RefusalsTakeTheTimeOfTheLongestCheck) {
  AuthenticationThread thread({.failureTime = 20ms});
  EXPECT_GE(Answer(thread, "peer", false, 0ms).second, 20ms);
  EXPECT_LT(Answer(thread, "peer", true, 60ms).second, 90ms);
  EXPECT_GE(Answer(thread, "peer", false, 0ms).second, 90ms);
  EXPECT_GE(Answer(thread, "other", false, 70ms).second, 90ms);
}

TEST(AuthenticationThreadTest, AfterTooManyFailuresNothingIsChecked) {
  AuthenticationThread thread({.failureTime = 1ms, .guesses = {.failures = 3}});
  std::atomic<int> checks = 0;
  std::promise<void> begin, all;
  const auto begun = begin.get_future().share();
  std::atomic<int> refused = 0;
  const auto submit = [&](const std::string& party) {
    return thread.Submit(
        party, [&, begun] { return begun.wait(), ++checks, false; },
        [&](bool accepted) {
          if (!accepted && ++refused == 5) all.set_value();
        });
  };
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(submit("guesser"));
  begin.set_value();
  ASSERT_EQ(all.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(checks, 3) << "what waited already";
  EXPECT_FALSE(Answer(thread, "other", false, 0ms).first);
  ASSERT_TRUE(submit("guesser"));
  EXPECT_EQ(refused, 6) << "answered at once";
  EXPECT_EQ(checks, 3);
  EXPECT_TRUE(Answer(thread, "other", true, 0ms).first);
}

/// A check that is being made, until it is told to end.
struct Held {
  explicit Held(AuthenticationThread& thread) {
    EXPECT_TRUE(thread.Submit(
        "held",
        [this] {
          begun.set_value();
          end.get_future().wait();
          return true;
        },
        [](bool) {}));
    EXPECT_EQ(begun.get_future().wait_for(kPatience), std::future_status::ready);
  }
  std::promise<void> begun, end;
};

TEST(AuthenticationThreadTest, WhatFindsNoPlaceIsRefused) {
  AuthenticationThread thread({.waiting = 3, .waitingOfParty = 2});
  Held held(thread);
  const auto submit = [&](const std::string& peer) {
    return thread.Submit(
        peer, [] { return true; }, [](bool) {});
  };
  EXPECT_TRUE(submit("a"));
  EXPECT_TRUE(submit("a"));
  EXPECT_FALSE(submit("a")) << "more than a party may have";
  EXPECT_TRUE(submit("b"));
  EXPECT_FALSE(submit("c")) << "more than all may have";
  held.end.set_value();
}

TEST(AuthenticationThreadTest, StopDropsWhatWaitsAndAwaitsWhatRuns) {
  AuthenticationThread thread;
  Held held(thread);
  const auto token = std::make_shared<int>();
  const auto submit = [&](const std::string& peer) {
    return thread.Submit(
        peer, [] { return true; }, [token](bool) { ADD_FAILURE(); });
  };
  EXPECT_TRUE(submit("a"));
  std::thread stop([&] { thread.Stop(); });
  for (int i = 0; submit("b" + std::to_string(i)); ++i) std::this_thread::sleep_for(1ms);
  held.end.set_value();
  stop.join();
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace Host::Settings::SettingsApi::Authn
