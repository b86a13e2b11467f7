#include "tesselibs/poll.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "tesselibs/log.h"

namespace {

volatile char stop = 0;

class PollTest : public testing::Test {
 protected:
  void SetUp() override {
    // The log's writer is started before SIGTERM is blocked, as at a program's start.
    auto output = Log_NewSyslogOutput("poll_test", "syslog", Log_CfgInterface());
    ASSERT_TRUE(Log_AddOutput(output));
    struct sigaction action {};
    action.sa_handler = [](int) { stop = 1; };
    ASSERT_EQ(sigaction(SIGTERM, &action, &previous_), 0);
    stop = 0;
    Poll_InitDefault();
  }
  void TearDown() override {
    Poll_Exit();
    sigaction(SIGTERM, &previous_, nullptr);
    Log_RemoveOutput();
  }

  struct sigaction previous_ {};
};

TEST_F(PollTest, SigtermBeforeTheLoopWaitsForIt) {
  kill(getpid(), SIGTERM);
  EXPECT_EQ(stop, 0) << "handled on a thread that should have it blocked";
  Poll_Loop(true, &stop);
  EXPECT_EQ(stop, 1);
}

// A signal lost between the test of the flag and the wait would let this hang.
TEST_F(PollTest, SigtermAtAnyMomentEndsTheLoop) {
  for (int i = 0; i < 2000; ++i) {
    stop = 0;
    std::thread sender([] { kill(getpid(), SIGTERM); });
    Poll_Loop(true, &stop);
    sender.join();
  }
}

TEST_F(PollTest, WithoutLoopingPendingSignalsAreLetInOnce) {
  Poll_Loop(false, &stop);
  EXPECT_EQ(stop, 0);
  kill(getpid(), SIGTERM);
  Poll_Loop(false, &stop);
  EXPECT_EQ(stop, 1);
}

}  // namespace
