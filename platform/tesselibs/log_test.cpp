#include "tesselibs/log.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>

#include "tesselibs/log_writer.h"
#include "tesselibs/panic.h"
#include "tesselibs/syslog_output.h"
#include "tesselibs/testing/system_log.h"

namespace {

using testing::MatchesRegex;

const std::string kLogPath = testing::TempDir() + "log_test." + std::to_string(getpid());

std::unique_ptr<LogOutput> NewOutput() {
  auto output = Log_NewSyslogOutput("kestreld", "syslog", {kLogPath});
  Log_SetOutputLevel(*output, LogLevel::kDebug);
  return output;
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    auto output = NewOutput();
    ASSERT_TRUE(Log_AddOutput(output));
  }
  void TearDown() override { Log_RemoveOutput(); }

  SystemLog log_{kLogPath};
};

TEST_F(LogTest, EachLineIsOneDatagramWithPriorityStampAndIdent) {
  errno = ERANGE;
  Log_Level(LogLevel::kCritical, "[%s] code %d\n", "RunCommand", 3);
  Log_Level(LogLevel::kDebug, "beyond the most verbose level");
  constexpr int kAuthPriv = 10 << 3;  // LOG_AUTHPRIV
  Log_Facility(kAuthPriv, LogLevel::kWarning, "of another facility\n");
  EXPECT_EQ(errno, ERANGE);
  const std::string form =
      "[A-Z][a-z][a-z] [ 1-3][0-9] [0-9]+:[0-9]+:[0-9]+ kestreld\\[" + std::to_string(getpid());
  EXPECT_THAT(log_.Receive(), MatchesRegex("<26>" + form + "\\]: \\[RunCommand\\] code 3"));
  EXPECT_THAT(log_.Receive(), MatchesRegex("<31>" + form + "\\]: beyond the most verbose level"));
  EXPECT_THAT(log_.Receive(), MatchesRegex("<84>" + form + "\\]: of another facility"));
}

TEST_F(LogTest, TextFromOutsideCannotForgeALine) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"\n", ""},
      {"a\n<26>Jan  1 root[1]: b\n", "a#012<26>Jan  1 root[1]: b"},
      {"\x1b[2J\x7f\t\xc3\xa4\n\n", "#033[2J#177#011\xc3\xa4#012"},
      {std::string(8191, 'x') + "\n", std::string(8191, 'x')},
      {std::string(8191, 'x') + "\xc3\xa4yz", std::string(8191, 'x') + "... (4 more bytes)"},
  };
  for (const auto& [text, expected] : cases) {
    Log_Level(LogLevel::kNotice, "%s", text.c_str());
    EXPECT_EQ(log_.ReceiveText(), expected);
    Log_Level(LogLevel::kNotice, "%.0s%s", "formatted", text.c_str());
    EXPECT_EQ(log_.ReceiveText(), expected);
  }
}

TEST_F(LogTest, LongTextIsToldWholeWhereItHoldsNobodyUp) {
  const std::string piece(8191, 'x');
  const std::string text = piece + "\xc3\xa4" + piece + "z\n";
  for (const char* format : {"%s", "%.0s%s"}) {
    for (const LogLevel level : {LogLevel::kInformation, LogLevel::kNotice}) {
      if (std::string_view(format) == "%s")
        Log_Level(level, "%s", text.c_str());
      else
        Log_Level(level, "%.0s%s", "formatted", text.c_str());
      if (level == LogLevel::kNotice) {
        EXPECT_EQ(log_.ReceiveText(), piece + "... (8195 more bytes)");
        continue;
      }
      EXPECT_EQ(log_.ReceiveText(), piece);
      EXPECT_EQ(log_.ReceiveText(), "...\xc3\xa4" + piece.substr(1));
      EXPECT_EQ(log_.ReceiveText(), "...xz");
    }
  }
}

TEST_F(LogTest, ARestartedSystemLogIsFoundAgain) {
  Log_Level(LogLevel::kInformation, "before");
  EXPECT_EQ(log_.ReceiveText(), "before");
  log_.Stop();
  log_.Start();
  // More than the kernel keeps and more than are sent at once: none is lost or comes twice.
  constexpr int kLines = 200;
  for (int i = 0; i < kLines; ++i) Log_Level(LogLevel::kInformation, "after %d\n", i);
  for (int i = 0; i < kLines; ++i) ASSERT_EQ(log_.ReceiveText(), "after " + std::to_string(i));
}

// One that is longer than the socket takes; the facility itself cuts texts far below that.
TEST(SyslogOutputTest, ALineThatCannotBeSentCostsNoOther) {
  const SystemLog log(kLogPath);
  SyslogOutput output("kestreld", kLogPath);
  const std::string tooLong(8 << 20, 'x');
  const auto line = [](std::string_view text) { return LogLine{0, LogLevel::kError, text}; };
  const LogLine lines[] = {line("first"), line(tooLong), line("last")};
  std::span<const LogLine> rest = lines;
  std::size_t lost = 0;
  while (!rest.empty()) {
    const auto progress = output.Write(rest);
    ASSERT_GT(progress.written + progress.lost, 0U);
    lost += progress.lost;
    rest = rest.subspan(progress.written + progress.lost);
  }
  EXPECT_EQ(lost, 1U);
  EXPECT_EQ(log.ReceiveText(), "first");
  EXPECT_EQ(log.ReceiveText(), "last");
}

TEST(LogEndTest, PanicAndExitWriteWhatIsQueued) {
  const SystemLog log(kLogPath);
  const auto addOutput = [] {
    auto output = NewOutput();
    if (!Log_AddOutput(output)) abort();
    Log_Level(LogLevel::kDebug, "queued");
  };
  EXPECT_EXIT(
      {
        addOutput();
        Panic("VERIFY %s:%d\n", "some/source", 7);
      },
      testing::KilledBySignal(SIGABRT), "VERIFY some/source:7");
  EXPECT_EQ(log.ReceiveText(), "queued");
  EXPECT_EQ(log.ReceiveText(), "VERIFY some/source:7");
  EXPECT_EXIT(
      {
        addOutput();
        exit(0);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EQ(log.ReceiveText(), "queued");
}

/// Reads lines until `count` of them came or were told as lost. @return how many came
int DrainUntil(const SystemLog& log, int count) {
  int received = 0;
  int lost = 0;
  while (received + lost < count) {
    const std::string text = log.ReceiveText();
    if (text.empty()) {
      ADD_FAILURE() << received << " lines came and " << lost << " were told as lost";
      break;
    }
    if (text.ends_with(" log lines were lost")) {
      lost += std::stoi(text);
    } else {
      ++received;
    }
  }
  return received;
}

// Were every line to wait in vain, these tests would run into their time limit.
TEST(StuckLogTest, LosesLinesInsteadOfStallingAndTellsHowMany) {
  constexpr int kLines = 2000;
  for (const LogLevel level : {LogLevel::kCritical, LogLevel::kInformation, LogLevel::kDebug}) {
    const SystemLog log(kLogPath);
    LogWriter writer({.queuedBytes = 10000, .patience = std::chrono::milliseconds(500)});
    auto output = NewOutput();
    ASSERT_TRUE(writer.Add(output));
    for (int i = 0; i < kLines; ++i) writer.Push(level, std::string(100, 'x'));
    const int received = DrainUntil(log, kLines);
    EXPECT_GT(received, 10);
    EXPECT_LT(received, kLines / 2);
  }
}

TEST(StuckLogTest, ErrorsWaitForALogThatIsSlow) {
  constexpr int kLines = 2000;
  const SystemLog log(kLogPath);
  LogWriter writer({.queuedBytes = 1000, .patience = std::chrono::seconds(60)});
  auto output = NewOutput();
  ASSERT_TRUE(writer.Add(output));
  std::thread producer([&] {
    for (int i = 0; i < kLines; ++i) writer.Push(LogLevel::kNotice, std::to_string(i));
  });
  for (int i = 0; i < kLines; ++i) ASSERT_EQ(log.ReceiveText(), std::to_string(i));
  producer.join();
  EXPECT_TRUE(writer.Flush());
}

TEST(StuckLogTest, EndsInBoundedTimeAndHandsTheOutputBack) {
  const SystemLog log(kLogPath);
  LogWriter writer({.flushTime = std::chrono::milliseconds(50)});
  auto output = NewOutput();
  ASSERT_TRUE(writer.Add(output));
  for (int i = 0; i < 5000; ++i) writer.Push(LogLevel::kInformation, "x");
  EXPECT_FALSE(writer.Flush());
  EXPECT_TRUE(writer.Remove());
}

}  // namespace
