#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace Host::Settings::SettingsApi::Authn {

/// Counts failed credentials by the party that they came from, and tells who has had its share:
/// after ten within a minute, nothing of that party is checked for a minute. What it gets right in
/// between takes nothing off the count, or an account of its own would buy it the next ten.
///
/// All members may be called from any thread.
class GuessLimiter {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    std::size_t failures = 10;
    std::chrono::seconds window{60};   ///< in which they count
    std::chrono::seconds shutOut{60};  ///< from the last of them
    std::size_t parties = 4096;  ///< remembered; beyond them the one longest quiet is forgotten
  };

  GuessLimiter() : GuessLimiter(Limits{}) {}
  explicit GuessLimiter(const Limits& limits) : limits_(limits) {}

  /// Whether the party has had its share.
  [[nodiscard]] bool IsShutOut(const std::string& party, Clock::time_point now = Clock::now());

  /// Notes that credentials of the party were wrong, if there is memory for it.
  void Failed(const std::string& party, Clock::time_point now = Clock::now()) noexcept;

 private:
  /// The moments of the latest failures, the oldest first, as many as count at most.
  using Failures = std::deque<Clock::time_point>;

  void ForgetTheQuiet(Clock::time_point now);

  const Limits limits_;
  std::mutex mutex_;  ///< guards what follows
  std::unordered_map<std::string, Failures> parties_;
};

}  // namespace Host::Settings::SettingsApi::Authn
