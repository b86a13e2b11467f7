#include "orbi/date_time.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace Orbi {
namespace {

namespace chrono = std::chrono;

/// A number of exactly the digits given, or -1.
int Number(std::string_view digits) {
  int number = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return -1;
    number = number * 10 + (c - '0');
  }
  return number;
}

/// The milliseconds of ".123", or -1. Empty is none.
int Milliseconds(std::string_view fraction) {
  constexpr std::size_t kLongest = 1 + 9;
  if (fraction.empty()) return 0;
  if (fraction[0] != '.' || fraction.size() < 2 || fraction.size() > kLongest) return -1;
  if (Number(fraction.substr(1)) < 0) return -1;
  std::string digits(fraction.substr(1));
  digits.resize(3, '0');
  return Number(digits);
}

}  // namespace

DateTime DateTime::GetUtcDateTime() {
  return DateTime(chrono::floor<chrono::milliseconds>(chrono::system_clock::now()));
}

std::optional<DateTime> DateTime::Create(std::string_view text) {
  constexpr std::string_view kShape = "####-##-##T##:##:##";
  if (text.size() <= kShape.size() || text.back() != 'Z') return std::nullopt;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    if (kShape[i] != '#' && text[i] != kShape[i]) return std::nullopt;
  }
  const auto number = [&](std::size_t from, std::size_t count) {
    return Number(text.substr(from, count));
  };
  const int year = number(0, 4), month = number(5, 2), day = number(8, 2);
  const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
  const int fraction = Milliseconds(text.substr(19, text.size() - 20));

  if (std::min({year, month, day, hour, minute, second, fraction}) < 0) return std::nullopt;
  const chrono::year_month_day date{chrono::year(year), chrono::month(static_cast<unsigned>(month)),
                                    chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  return DateTime(chrono::sys_days(date) + chrono::hours(hour) + chrono::minutes(minute) +
                  chrono::seconds(second) + chrono::milliseconds(fraction));
}

std::string DateTime::ToText() const {
  const auto day = chrono::floor<chrono::days>(time_);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss clock(time_ - day);
  char text[80];
  const int length = std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace Orbi
