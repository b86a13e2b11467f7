#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "lifecycle/waiting.h"

namespace LifeCycle {

/// The waits of operations take a hundredth of their time, and are noted. One at a time.
class QuickWaits {
 public:
  /// @param meanwhile  what happens while somebody waits; whether the process goes on
  explicit QuickWaits(std::function<bool()> meanwhile = [] { return true; }) {
    const std::lock_guard lock(mutex_);
    meanwhile_ = std::move(meanwhile);
    taken_.clear();
    before_ = ReplaceWaiter(Note);
  }
  QuickWaits(const QuickWaits&) = delete;
  QuickWaits& operator=(const QuickWaits&) = delete;
  ~QuickWaits() { ReplaceWaiter(before_); }

  [[nodiscard]] static std::vector<std::chrono::milliseconds> Taken() {
    const std::lock_guard lock(mutex_);
    return taken_;
  }

 private:
  static bool Note(std::chrono::milliseconds time) {
    std::this_thread::sleep_for(time / 100);
    const std::lock_guard lock(mutex_);
    taken_.push_back(time);
    return meanwhile_();
  }

  static inline std::mutex mutex_;
  static inline std::function<bool()> meanwhile_;
  static inline std::vector<std::chrono::milliseconds> taken_;
  Waiter before_ = nullptr;
};

}  // namespace LifeCycle
