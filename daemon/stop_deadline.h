#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace Host::Settings::SettingsApi {

/// Ends the process when its orderly stop takes too long: a helper that does not end, or a module
/// of the system's authentication that hangs, must not hold up the service manager. What is lost
/// then is what a crash would lose.
class StopDeadline {
 public:
  /// The time counts from here; destroying the object lifts the deadline.
  explicit StopDeadline(std::chrono::milliseconds time);
  StopDeadline(const StopDeadline&) = delete;
  StopDeadline& operator=(const StopDeadline&) = delete;
  ~StopDeadline();

 private:
  std::mutex mutex_;  ///< guards what follows
  std::condition_variable changed_;
  bool stopped_ = false;
  std::thread thread_;
};

}  // namespace Host::Settings::SettingsApi
