#pragma once

#include <chrono>

namespace Orbi::Asio {

using SteadyClock = std::chrono::steady_clock;

/// The moment that lies `wait` from now, at most the last one that the clock knows.
inline SteadyClock::time_point DeadlineIn(std::chrono::nanoseconds wait) {
  const auto now = SteadyClock::now();
  return wait < SteadyClock::time_point::max() - now ? now + wait : SteadyClock::time_point::max();
}

}  // namespace Orbi::Asio
