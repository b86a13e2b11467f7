#include "transport/server_config.h"

#include <gtest/gtest.h>

#include <sstream>

#include "orbi/l10n/localizer.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using namespace std::chrono_literals;

TEST(ServerConfig, DurationsAreToldInWholeUnits) {
  const std::pair<std::chrono::nanoseconds, const char*> kCases[] = {
      {999ns, "999 nanoseconds"}, {999'999ns, "999 microseconds"},
      {1ms, "1 milliseconds"},    {59'999ms, "59 seconds"},
      {60s, "1 minutes"},         {119'999ms, "1 minutes and 59 seconds"},
      {2h, "120 minutes"},
  };
  for (const auto& [duration, text] : kCases) EXPECT_EQ(DurationText(duration), text);
}

TEST(ServerConfig, TextFormNamesEveryField) {
  ServerConfig config{.port = 8080, .localizer = {}, .serverSpec = {}};
  config.endpoint4.port(8080);
  EXPECT_EQ((std::ostringstream() << config).str(),
            "ServerConfig{port:8080endpoint4:0.0.0.0:8080;endpoint6:[::]:0;Localizer not set;"
            "readTimeout:20 minutes;writeTimeout:30 minutes;httpBodySizeLimitInBytes:2500000;"
            "extractors:not set}");
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
