#include "transport/server_config.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Orbi::Transport::PicoHttp {
namespace {

using namespace std::chrono_literals;

TEST(ServerConfig, TextFormNamesEveryFieldAndDurationsInWholeUnits) {
  ServerConfig config{.port = 8080, .serverSpec = {}};
  config.endpoint4.port(8080);
  EXPECT_EQ((std::ostringstream() << config).str(),
            "ServerConfig{port:8080endpoint4:0.0.0.0:8080;endpoint6:[::]:0;Localizer not set;"
            "readTimeout:20 minutes;writeTimeout:30 minutes;httpBodySizeLimitInBytes:2500000;"
            "extractors:not set}");
  EXPECT_EQ(DurationText(999'999ns), "999 microseconds");
  EXPECT_EQ(DurationText(59'999ms), "59 seconds");
  EXPECT_EQ(DurationText(119'999ms), "1 minutes and 59 seconds");
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
