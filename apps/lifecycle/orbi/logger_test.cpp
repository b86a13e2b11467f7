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

void AddOutput(int level) {
  std::unique_ptr<LogOutput> output = std::make_unique<NullOutput>();
  Log_SetOutputLevel(*output, level);
  ASSERT_TRUE(Log_AddOutput(output));
}

TEST(Logger, EachRecordOfAnEnabledLevelIsEmittedOnceAtItsPlatformLevel) {
  OrbiLoggerWrapper logger(Capture);
  EXPECT_FALSE(logger.CreateRecord(5)) << "no output";
  AddOutput(7);
  for (int level = 0; level <= 5; ++level) Orbi::Log::Write(logger, level, "100%s ", level);
  logger.CreateRecord(2).reset();
  EXPECT_EQ(emitted, (std::vector<std::pair<int, std::string>>{{7, "100%s 0"},
                                                               {6, "100%s 1"},
                                                               {5, "100%s 2"},
                                                               {3, "100%s 3"},
                                                               {2, "100%s 4"},
                                                               {1, "100%s 5"},
                                                               {5, ""}}));
  Log_RemoveOutput();
  AddOutput(5);
  EXPECT_FALSE(logger.CreateRecord(1));
  EXPECT_TRUE(logger.CreateRecord(2));
  Log_RemoveOutput();
}

TEST(Logger, ALevelOutsideTheRangeIsFatal) {
  OrbiLoggerWrapper logger(Capture);
  for (const int level : {-1, 6}) {
    EXPECT_EXIT(logger.CreateRecord(level), testing::KilledBySignal(SIGABRT),
                "NOT_REACHED apps/lifecycle/orbi/include/logger:94\n");
  }
}

}  // namespace
