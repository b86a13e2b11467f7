#include "apps/lifecycle/orbi/include/logger.h"

#include <array>
#include <utility>

#include "apps/lifecycle/orbi/include/verify.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi {

namespace {

// Indexed by framework level. The platform's warnings have no counterpart.
constexpr std::array kPlatformLevels = {LogLevel::kDebug, LogLevel::kInformation, LogLevel::kNotice,
                                        LogLevel::kError, LogLevel::kCritical,    LogLevel::kAlert};

/// The stream of the thread's last record, for its next: making one costs more than most lines.
thread_local std::unique_ptr<std::stringstream> spareStream;

}  // namespace

OrbiLoggerWrapper::Record::Record(LogFunction log, LogLevel platformLevel)
    : log_(log),
      platformLevel_(platformLevel),
      stream_(spareStream ? std::move(spareStream) : std::make_unique<std::stringstream>()) {}

OrbiLoggerWrapper::Record::~Record() {
  log_(platformLevel_, "%s", stream_->str().c_str());
  stream_->str({});
  stream_->clear();
  stream_->flags(std::ios_base::skipws | std::ios_base::dec);
  spareStream = std::move(stream_);
}

std::unique_ptr<Orbi::Log::LogRecord> OrbiLoggerWrapper::CreateRecord(int level) {
  if (level < 0 || level >= static_cast<int>(kPlatformLevels.size())) {
    NotReached("apps/lifecycle/orbi/include/logger", 94);
  }
  const LogLevel platformLevel = kPlatformLevels[static_cast<std::size_t>(level)];
  if (!Log_IsEnabled(platformLevel)) return nullptr;
  return std::make_unique<Record>(log_, platformLevel);
}

}  // namespace Host::Settings::SettingsApi
