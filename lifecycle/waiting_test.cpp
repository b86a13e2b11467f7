#include "lifecycle/waiting.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace LifeCycle {
namespace {

TEST(WaitingDeathTest, ProcessThatStopsWaitsNoLonger) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        alarm(60);
        std::thread stopper(StopWaiting);
        const bool waited = Wait(std::chrono::hours(1)) || Wait(std::chrono::hours(1));
        stopper.join();
        std::exit(waited ? EXIT_FAILURE : EXIT_SUCCESS);
      },
      testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace
}  // namespace LifeCycle
