#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Orbi {

/// A moment in UTC, exact to the millisecond, in the years 0 to 9999.
class DateTime {
 public:
  using Time = std::chrono::sys_time<std::chrono::milliseconds>;

  explicit DateTime(Time time) : time_(time) {}

  /// The present moment by the system's clock.
  [[nodiscard]] static DateTime GetUtcDateTime();

  /// Reads RFC 3339's date-time in UTC, "2026-11-21T02:12:52.123Z". The fraction of a second may be
  /// left out or have up to nine digits, of which those behind the third are dropped.
  /// @return nothing when the text is not such a date-time or names no real moment
  [[nodiscard]] static std::optional<DateTime> Create(std::string_view text);

  /// Always with three digits of a second's fraction.
  [[nodiscard]] std::string ToText() const;

  [[nodiscard]] Time time() const { return time_; }

  auto operator<=>(const DateTime&) const = default;

 private:
  Time time_;
};

}  // namespace Orbi
