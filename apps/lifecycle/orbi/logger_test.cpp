#include "apps/lifecycle/orbi/include/logger.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <vector>

#include "tesselibs/log.h"

namespace {

using Host::Settings::SettingsApi::OrbiLoggerWrapper;

class NullOutput : public LogOutput {
 public:
  Result Write(const LogLine&) override { return Result::kWritten; }
};

std::vector<std::pair<int, std::string>> emitted;

__attribute__((format(printf, 2, 3))) void Capture(int level, const char* format, ...) {
  char text[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  emitted.emplace_back(level, text);
}

class LoggerTest : public testing::Test {
 protected:
  void AddOutput(int level) {
    std::unique_ptr<LogOutput> output = std::make_unique<NullOutput>();
    Log_SetOutputLevel(*output, level);
    ASSERT_TRUE(Log_AddOutput(output));
  }
  void TearDown() override { Log_RemoveOutput(); }

  OrbiLoggerWrapper logger_{Capture};
};

TEST_F(LoggerTest, EachRecordIsEmittedOnceAtItsPlatformLevel) {
  AddOutput(7);
  emitted.clear();
  const int platformLevels[] = {7, 6, 5, 3, 2, 1};
  for (int level = 0; level <= 5; ++level) {
    Orbi::Log::Write(logger_, level, "100%s ", level);
    ASSERT_EQ(emitted.size(), static_cast<std::size_t>(level) + 1);
    EXPECT_EQ(emitted.back(), std::pair(platformLevels[level], "100%s " + std::to_string(level)));
  }
  logger_.CreateRecord(2).reset();
  EXPECT_EQ(emitted.back(), std::pair(5, std::string()));
}

TEST_F(LoggerTest, ADisabledLevelHasNoRecord) {
  EXPECT_FALSE(logger_.CreateRecord(5)) << "no output";
  AddOutput(5);
  EXPECT_FALSE(logger_.CreateRecord(1));
  EXPECT_TRUE(logger_.CreateRecord(2));
}

TEST_F(LoggerTest, ALevelOutsideTheRangeIsFatal) {
  for (const int level : {-1, 6}) {
    EXPECT_EXIT(logger_.CreateRecord(level), testing::KilledBySignal(SIGABRT),
                "NOT_REACHED apps/lifecycle/orbi/include/logger:94\n");
  }
}

}  // namespace
