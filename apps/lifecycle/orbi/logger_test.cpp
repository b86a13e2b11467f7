#include "apps/lifecycle/orbi/include/logger.h"

#include <gmock/gmock.h>

#include "tesselibs/testing/captured_log.h"

namespace {

using Host::Settings::SettingsApi::OrbiLoggerWrapper;

TEST(Logger, EachRecordIsEmittedOnceAtItsPlatformLevel) {
  OrbiLoggerWrapper logger(Log_Level);
  EXPECT_FALSE(logger.CreateRecord(5)) << "no output";
  CapturedLog log;
  for (int level = 0; level <= 5; ++level) Orbi::Log::Write(logger, level, "100%s ", level);
  logger.CreateRecord(2).reset();
  EXPECT_THAT(log.TakeLines(), testing::ElementsAre("7 100%s 0", "6 100%s 1", "5 100%s 2",
                                                    "3 100%s 3", "2 100%s 4", "1 100%s 5", "5 "));
}

TEST(Logger, ALevelOutsideTheRangeIsFatal) {
  OrbiLoggerWrapper logger(Log_Level);
  for (const int level : {-1, 6}) {
    EXPECT_EXIT(logger.CreateRecord(level), testing::KilledBySignal(SIGABRT),
                "NOT_REACHED apps/lifecycle/orbi/include/logger:94\n");
  }
}

}  // namespace
