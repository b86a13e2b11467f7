#include "orbi/date_time.h"

#include <gtest/gtest.h>

namespace Orbi {
namespace {

TEST(DateTime, ReadsAndWritesUtc) {
  const struct {
    const char* text;
    const char* written;  ///< nullptr: refused
  } cases[] = {
      {"2026-11-21T02:12:52.123Z", "2026-11-21T02:12:52.123Z"},
      {"2026-11-21T02:12:52Z", "2026-11-21T02:12:52.000Z"},
      {"2026-11-21T02:12:52.5Z", "2026-11-21T02:12:52.500Z"},
      {"2026-11-21T02:12:52.123999999Z", "2026-11-21T02:12:52.123Z"},
      {"2024-02-29T23:59:59.999Z", "2024-02-29T23:59:59.999Z"},
      {"1969-12-31T23:59:59.999Z", "1969-12-31T23:59:59.999Z"},
      {"2026-02-29T00:00:00Z", nullptr},
      {"2026-13-01T00:00:00Z", nullptr},
      {"2026-01-01T24:00:00Z", nullptr},
      {"2026-01-01T00:00:60Z", nullptr},
      {"2026-01-01T00:00:00", nullptr},
      {"2026-01-01T00:00:00.Z", nullptr},
      {"2026-01-01T00:00:00.1234567890Z", nullptr},
      {"2026-01-01T00:00:00.1x9Z", nullptr},
      {"2026-01-01T00:00:00+00:00", nullptr},
      {"2026-01-01 00:00:00Z", nullptr},
      {"+026-01-01T00:00:00Z", nullptr},
      {"2026-01-01T-1:00:00Z", nullptr},
      {"Z", nullptr},
      {"", nullptr},
  };
  for (const auto& c : cases) {
    const auto time = DateTime::Create(c.text);
    ASSERT_EQ(time.has_value(), c.written != nullptr) << c.text;
    if (time) {
      EXPECT_EQ(time->ToText(), c.written);
    }
  }
}

TEST(DateTime, PresentMomentSurvivesItsText) {
  const DateTime now = DateTime::GetUtcDateTime();
  EXPECT_EQ(DateTime::Create(now.ToText()), now);
}

}  // namespace
}  // namespace Orbi
