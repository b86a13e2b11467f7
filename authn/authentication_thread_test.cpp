#include "authn/authentication_thread.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>

namespace Host::Settings::SettingsApi::Authn {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 20s;

class AuthenticationThreadTest : public testing::Test {
 protected:
  ~AuthenticationThreadTest() override {
    io_.stop();
    worker_.join();
  }

  boost::asio::io_context io_;

 private:
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      io_.get_executor()};
  std::thread worker_{[this] { io_.run(); }};
};

TEST_F(AuthenticationThreadTest, OneCheckAtATimeAndPeersTakeTurns) {
  AuthenticationThread thread(io_, {.failureTime = 1ms});
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

TEST_F(AuthenticationThreadTest, RefusalsTakeAFixedTimeInWhichThePeerHasNoOtherTurn) {
  AuthenticationThread thread(io_, {.failureTime = 40ms});
  std::promise<void> refused, accepted;
  const auto begin = Clock::now();
  Clock::time_point refusedAt, nextAt, othersAt;
  ASSERT_TRUE(thread.Submit(
      "peer", [] { return false; }, [&](bool) { refusedAt = Clock::now(); }));
  ASSERT_TRUE(thread.Submit(
      "peer", [&] { return nextAt = Clock::now(), false; }, [&](bool) { refused.set_value(); }));
  ASSERT_TRUE(thread.Submit(
      "other", [&] { return othersAt = Clock::now(), true; }, [&](bool) { accepted.set_value(); }));
  ASSERT_EQ(accepted.get_future().wait_for(kPatience), std::future_status::ready);
  ASSERT_EQ(refused.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_GE(refusedAt - begin, 40ms);
  EXPECT_GE(nextAt, refusedAt);
  EXPECT_LT(othersAt, refusedAt) << "waited for another's refusal";
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

TEST_F(AuthenticationThreadTest, WhatFindsNoPlaceIsRefused) {
  AuthenticationThread thread(io_, {.waiting = 3, .waitingOfPeer = 2});
  Held held(thread);
  const auto submit = [&](const std::string& peer) {
    return thread.Submit(
        peer, [] { return true; }, [](bool) {});
  };
  EXPECT_TRUE(submit("a"));
  EXPECT_TRUE(submit("a"));
  EXPECT_FALSE(submit("a")) << "more than a peer may have";
  EXPECT_TRUE(submit("b"));
  EXPECT_FALSE(submit("c")) << "more than all may have";
  held.end.set_value();
}

TEST_F(AuthenticationThreadTest, StopDropsWhatWaitsAndAwaitsWhatRuns) {
  AuthenticationThread thread(io_);
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
