#include "orbi/date_time.h"

#include <gtest/gtest.h>

namespace Orbi {
namespace {

TEST(DateTime, ReadsAndWritesUtc) {
  const std::pair<const char*, const char*> cases[] = {
      {"2026-11-21T02:12:52.123Z", "2026-11-21T02:12:52.123Z"},
      {"2026-11-21T02:12:52Z", "2026-11-21T02:12:52.000Z"},
      {"2026-11-21T02:12:52.5Z", "2026-11-21T02:12:52.500Z"},
      {"2026-11-21T02:12:52.123999999Z", "2026-11-21T02:12:52.123Z"},
      {"2024-02-29T23:59:59.999Z", "2024-02-29T23:59:59.999Z"},
      {"1969-12-31T23:59:59.999Z", "1969-12-31T23:59:59.999Z"},
  };
  for (const auto& [text, written] : cases) {
    const auto time = DateTime::Create(text);
    ASSERT_TRUE(time) << text;
    EXPECT_EQ(time->ToText(), written);
  }
  const DateTime now = DateTime::GetUtcDateTime();
  EXPECT_EQ(DateTime::Create(now.ToText()), now);
}

TEST(DateTime, RefusesWhatIsNoMomentInUtc) {
  for (const char* text :
       {"2026-02-29T00:00:00Z", "2026-13-01T00:00:00Z", "2026-01-01T24:00:00Z",
        "2026-01-01T00:00:60Z", "2026-01-01T00:00:00", "2026-01-01T00:00:00.Z",
        "2026-01-01T00:00:00.1234567890Z", "2026-01-01T00:00:00.1x9Z", "2026-01-01T00:00:00+00:00",
        "2026-01-01 00:00:00Z", "+026-01-01T00:00:00Z", "2026-01-01T-1:00:00Z", "Z", ""})
    EXPECT_FALSE(DateTime::Create(text)) << text;
}

}  // namespace
}  // namespace Orbi
