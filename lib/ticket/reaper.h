#pragma once

#include <chrono>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace Ticket {

/// Age from which on a ticket that nobody used counts as stale.
inline constexpr std::chrono::minutes kReapingTimeout{10};

/// Removes the stale tickets of both ticket directories. Throws nothing but std::bad_alloc; what
/// cannot be removed is logged and left.
void ReapStaleTickets();

/// Removes stale tickets for as long as it lives: once when it is started, then in intervals on the
/// threads that run the io_context.
///
/// Destroying it ends the reaping, also when a handler is already queued; not, however, while the
/// io_context runs on another thread.
class Reaper : public std::enable_shared_from_this<Reaper> {
 public:
  explicit Reaper(boost::asio::io_context& io,
                  std::chrono::milliseconds interval = std::chrono::minutes(1));

  /// Reaps at once, on the calling thread, and arms the timer. The reaper is owned by a shared
  /// pointer and started once, before the io_context runs.
  void Start();

 private:
  const std::chrono::milliseconds interval_;
  boost::asio::steady_timer timer_;
};

}  // namespace Ticket
