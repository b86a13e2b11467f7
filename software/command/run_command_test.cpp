#include "software/command/run_command.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "tesselibs/testing/captured_log.h"

namespace LifeCycle {

void PrintTo(const CommandResult& result, std::ostream* stream) {
  *stream << "kind " << result.kind << " code " << result.code;
}

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::StartsWith;

auto Ends(CommandResult::Kind kind, int code) {
  return AllOf(Field(&CommandResult::kind, kind), Field(&CommandResult::code, code));
}

bool HasChildren() {
  siginfo_t info;
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

class RunCommandTest : public testing::Test {
 protected:
  void SetUp() override { previous_ = signal(SIGPIPE, SIG_IGN); }
  void TearDown() override {
    signal(SIGPIPE, previous_);
    for (int i = 0; i < 2000 && HasChildren(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(HasChildren()) << "a child was left behind";
  }

 private:
  sighandler_t previous_ = nullptr;
};

TEST_F(RunCommandTest, EveryWayACommandCanEndHasItsKindAndCode) {
  const std::tuple<const char*, CommandResult::Kind, int> cases[] = {
      {"/bin/true", CommandResult::kSuccess, 0},
      {"/bin/sh -c 'exit 3'", CommandResult::kFailed, 3},
      {"/bin/sh -c 'exit 255'", CommandResult::kFailed, 255},
      {"/bin/sh -c 'kill -9 $$'", CommandResult::kFailed, 9},
      {"/bin/sh -c 'kill -15 $$'", CommandResult::kFailed, 15},
      {"/no/such/helper", CommandResult::kNotStarted, ENOENT},
      {"/etc", CommandResult::kNotStarted, EACCES},
      {"/bin/true 'unbalanced", CommandResult::kNotStarted, EINVAL},
      {"/bin/sh -c 'test $0 = x' ++group=g,mem=100,stats x", CommandResult::kSuccess, 0},
      {"/bin/sh ++group=g,mem=1.5,stats -c true", CommandResult::kNotStarted, EINVAL},
  };
  for (const auto& [command, kind, code] : cases) {
    std::string output = "before ";
    EXPECT_THAT(RunCommand(command, nullptr, &output), Ends(kind, code)) << command;
    EXPECT_EQ(output, "before ");
    const std::string input;
    EXPECT_THAT(RunCommand(command, &input, nullptr), Ends(kind, code)) << command;
    EXPECT_THAT(RunCommand(command), Ends(kind, code)) << command;
  }
}

TEST_F(RunCommandTest, InputAndOutputOfMegabytesArriveWhole) {
  const std::string file = testing::TempDir() + "run_command_test." + std::to_string(getpid());
  const std::string input(5000000, 'i');
  EXPECT_THAT(RunCommand("/bin/dd status=none of=" + file, &input, nullptr),
              Ends(CommandResult::kSuccess, 0));
  std::string output;
  EXPECT_THAT(RunCommand("/bin/cat " + file, nullptr, &output), Ends(CommandResult::kSuccess, 0));
  EXPECT_EQ(output, input);
  std::filesystem::remove(file);
}

TEST_F(RunCommandTest, AZeroByteEndsThePieceItStandsIn) {
  std::string output;
  EXPECT_THAT(RunCommand("/usr/bin/printf 'a\\0b'", nullptr, &output),
              Ends(CommandResult::kSuccess, 0));
  EXPECT_EQ(output, "a");
}

TEST_F(RunCommandTest, OutputIsBounded) {
  std::string output;
  EXPECT_THAT(RunCommand("/usr/bin/head -c 67108864 /dev/zero", nullptr, &output),
              Ends(CommandResult::kSuccess, 0));
  CapturedLog log;
  EXPECT_THAT(RunCommand("/usr/bin/head -c 67108865 /dev/zero", nullptr, &output),
              Ends(CommandResult::kOutputNotRead, EMSGSIZE));
  EXPECT_THAT(log.TakeLines(),
              ElementsAre(StartsWith("6 [RunCommand] About to run"),
                          "6 [RunCommand] Error reading from pipe: Message too long"));
  EXPECT_THAT(RunCommand("/usr/bin/yes", nullptr, &output),
              Ends(CommandResult::kOutputNotRead, EMSGSIZE));
}

// The write begins before, while or after the command ends; a part that was taken counts as
// written.
TEST_F(RunCommandTest, ACommandThatDoesNotReadItsInputIsAnErrorAtMost) {
  const std::string input(1 << 22, 'x');
  bool seen = false;
  for (int i = 0; i < 1000 && !seen; ++i) {
    CapturedLog log;
    const CommandResult result = RunCommand("/bin/true", &input, nullptr);
    seen = result.kind == CommandResult::kInputNotWritten;
    if (!seen) {
      EXPECT_THAT(result, Ends(CommandResult::kSuccess, 0));
      continue;
    }
    EXPECT_EQ(result.code, EPIPE);
    EXPECT_THAT(log.TakeLines(),
                testing::Contains("2 [RunCommand]: Failed to write 4194304 bytes to pipe."));
  }
  EXPECT_TRUE(seen);
}

}  // namespace
}  // namespace LifeCycle
