#include "transport/server_config.h"

#include <gtest/gtest.h>

#include <sstream>

#include "orbi/l10n/localizer.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using namespace std::chrono_literals;

TEST(ServerConfig, DurationsAreToldInWholeUnits) {
  const std::pair<std::chrono::nanoseconds, const char*> kCases[] = {
      {0ns, "0 nanoseconds"},
      {999ns, "999 nanoseconds"},
      {1000ns, "1 microseconds"},
      {999'999ns, "999 microseconds"},
      {1ms, "1 milliseconds"},
      {999'999'999ns, "999 milliseconds"},
      {1s, "1 seconds"},
      {59'999ms, "59 seconds"},
      {60s, "1 minutes"},
      {90s, "1 minutes and 30 seconds"},
      {119'999ms, "1 minutes and 59 seconds"},
      {1200s, "20 minutes"},
      {2h, "120 minutes"},
  };
  for (const auto& [duration, text] : kCases) EXPECT_EQ(DurationText(duration), text);
}

TEST(ServerConfig, TextFormNamesEveryField) {
  ServerConfig config{.port = 8080, .localizer = {}, .serverSpec = {}};
  config.endpoint4.port(8080);
  const auto text = [&config] { return (std::ostringstream() << config).str(); };
  const std::string start = "ServerConfig{port:8080endpoint4:0.0.0.0:8080;endpoint6:[::]:0;";
  const std::string limits =
      "readTimeout:20 minutes;writeTimeout:30 minutes;httpBodySizeLimitInBytes:2500000;extractors:";
  EXPECT_EQ(text(), start + "Localizer not set;" + limits + "not set}");
  config.serverSpec.extractors.emplace(2);
  config.localizer = L10n::LocalizerHelpers::GetDefaultLocalizer();
  EXPECT_EQ(text(), start + "Localizer{locale:en_US};" + limits + "count:2}");
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
