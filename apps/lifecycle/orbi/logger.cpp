#include "apps/lifecycle/orbi/include/logger.h"

#include <array>

#include "apps/lifecycle/orbi/include/verify.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi {

namespace {

// Indexed by framework level. Platform level 4 has no counterpart.
constexpr std::array kPlatformLevels = {7, 6, 5, 3, 2, 1};

}  // namespace

std::unique_ptr<Orbi::Log::LogRecord> OrbiLoggerWrapper::CreateRecord(int level) {
  if (level < 0 || level >= static_cast<int>(kPlatformLevels.size())) {
    NotReached("apps/lifecycle/orbi/include/logger", 94);
  }
  const int platformLevel = kPlatformLevels[static_cast<std::size_t>(level)];
  if (!Log_IsEnabled(platformLevel)) return nullptr;
  return std::make_unique<Record>(log_, platformLevel);
}

}  // namespace Host::Settings::SettingsApi
