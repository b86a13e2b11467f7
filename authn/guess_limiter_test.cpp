#include "authn/guess_limiter.h"

#include <gtest/gtest.h>

namespace Host::Settings::SettingsApi::Authn {
namespace {

using namespace std::chrono_literals;

const GuessLimiter::Clock::time_point kStart{24h};

TEST(GuessLimiterTest, TenFailuresInAMinuteShutTheirPartyOutForOne) {
  GuessLimiter limiter;
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(limiter.IsShutOut("192.0.2.7", kStart + i * 6s));
    limiter.Failed("192.0.2.7", kStart + i * 6s);
  }
  EXPECT_TRUE(limiter.IsShutOut("192.0.2.7", kStart + 54s));
  EXPECT_TRUE(limiter.IsShutOut("192.0.2.7", kStart + 54s + 59s));
  EXPECT_FALSE(limiter.IsShutOut("192.0.2.7", kStart + 54s + 60s));
  EXPECT_FALSE(limiter.IsShutOut("192.0.2.8", kStart + 54s));
}

TEST(GuessLimiterTest, FailuresFurtherApartShutNobodyOut) {
  GuessLimiter limiter;
  for (int i = 0; i < 100; ++i) {
    limiter.Failed("192.0.2.7", kStart + i * 7s);
    EXPECT_FALSE(limiter.IsShutOut("192.0.2.7", kStart + i * 7s));
  }
}

TEST(GuessLimiterTest, ManyPartiesPushOutTheQuietOnly) {
  GuessLimiter limiter({.failures = 2, .parties = 3});
  const auto fail = [&](const char* party, std::chrono::seconds when) {
    limiter.Failed(party, kStart + when);
  };
  for (const auto when : {1s, 2s}) fail("busy", when);
  fail("a", 0s);
  fail("b", 3s);
  fail("c", 4s);  // in place of a
  EXPECT_TRUE(limiter.IsShutOut("busy", kStart + 4s));
  fail("b", 5s);
  EXPECT_TRUE(limiter.IsShutOut("b", kStart + 5s)) << "was forgotten";
  fail("a", 100s);  // all others count no more
  for (const auto when : {100s, 101s}) fail("d", when);
  EXPECT_TRUE(limiter.IsShutOut("d", kStart + 101s));
}

}  // namespace
}  // namespace Host::Settings::SettingsApi::Authn
