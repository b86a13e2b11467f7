#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/socket_base.hpp>

#include "transport/asio/deadline.h"

namespace Orbi::Asio {

/// How long one operation may take.
struct IOTimeouts {
  std::chrono::nanoseconds read;
  std::chrono::nanoseconds write;
};

/// The bottom of a connection's stack of streams: a connected socket each of whose operations has a
/// deadline. An operation whose deadline passes is cancelled and completes with
/// boost::asio::error::timed_out.
///
/// One operation may be pending at a time, and its handler keeps the stream alive. The stream is
/// owned through a shared pointer, because a wait of its timer can come to an end after it. Any
/// thread of the I/O context may run the handlers.
///
/// Arming a timer costs a system call, so the timer is not armed for every operation: one wait
/// stands for all of them, and when it ends it looks at the deadline of the operation that is
/// pending by then.
template <class Socket>
class TimeoutBaseStream : public std::enable_shared_from_this<TimeoutBaseStream<Socket>> {
 public:
  using executor_type = typename Socket::executor_type;

  TimeoutBaseStream(Socket socket, const IOTimeouts& timeouts)
      : socket_(std::move(socket)), timer_(socket_.get_executor()), timeouts_(timeouts) {}

  executor_type get_executor() { return socket_.get_executor(); }

  template <class Handler>
  void async_read_some(boost::asio::mutable_buffer buffer, Handler&& handler) {
    const std::lock_guard lock(mutex_);
    Begin(timeouts_.read);
    socket_.async_read_some(buffer, Ending(std::forward<Handler>(handler)));
  }

  template <class Buffers, class Handler>
  void async_write_some(const Buffers& buffers, Handler&& handler) {
    const std::lock_guard lock(mutex_);
    Begin(timeouts_.write);
    socket_.async_write_some(buffers, Ending(std::forward<Handler>(handler)));
  }

  /// No later operation may take longer than to this moment, whatever its own time-out is.
  void FinishBy(SteadyClock::time_point limit) {
    const std::lock_guard lock(mutex_);
    limit_ = limit;
  }

  /// Tells the peer that nothing more will be sent to it.
  void ShutdownSend() {
    const std::lock_guard lock(mutex_);
    boost::system::error_code ignored;  // the peer may have gone already
    socket_.shutdown(boost::asio::socket_base::shutdown_send, ignored);
  }

  /// Closes the socket; a pending operation completes with operation_aborted.
  void Close() {
    const std::lock_guard lock(mutex_);
    boost::system::error_code ignored;  // closed is closed
    socket_.close(ignored);
  }

 private:
  using Timer =
      boost::asio::basic_waitable_timer<SteadyClock, boost::asio::wait_traits<SteadyClock>,
                                        executor_type>;

  // The functions below are called with the mutex held.

  void Begin(std::chrono::nanoseconds timeout) {
    deadline_ = std::min(DeadlineIn(timeout), limit_);
    pending_ = true;
    expired_ = false;
    if (deadline_ < waitEnd_) Arm();
  }

  void Arm() {
    waitEnd_ = deadline_;
    timer_.expires_at(deadline_);
    timer_.async_wait([weak = this->weak_from_this(), wait = ++wait_](const auto&) {
      if (const auto self = weak.lock()) self->WaitEnded(wait);
    });
  }

  /// @return false when there is no memory for it: a connection without a deadline would stay for
  /// good
  bool ArmAgain() noexcept {
    try {
      Arm();
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }

  // The functions below take the mutex.

  /// A wait that was replaced can have its handler queued already, and the operation that it was
  /// armed for can be long complete: so the error code tells nothing here, only the wait's number
  /// and the pending operation's own deadline do.
  void WaitEnded(std::uint64_t wait) {
    const std::lock_guard lock(mutex_);
    if (wait != wait_) return;
    waitEnd_ = SteadyClock::time_point::max();
    if (!pending_) return;
    if (SteadyClock::now() < deadline_ && ArmAgain()) return;
    expired_ = true;
    boost::system::error_code
        ignored;  // a socket that cannot be cancelled is closed, and so is its operation
    socket_.cancel(ignored);
  }

  template <class Handler>
  auto Ending(Handler&& handler) {
    return [this, handler = std::forward<Handler>(handler)](boost::system::error_code ec,
                                                            std::size_t transferred) mutable {
      if (End() && ec) ec = boost::asio::error::timed_out;
      handler(ec, transferred);
    };
  }

  /// @return whether the operation's deadline has passed
  bool End() {
    const std::lock_guard lock(mutex_);
    pending_ = false;
    return expired_;
  }

  std::mutex mutex_;  ///< guards all below against the timer's own handler
  Socket socket_;
  Timer timer_;
  const IOTimeouts timeouts_;
  SteadyClock::time_point limit_ = SteadyClock::time_point::max();
  SteadyClock::time_point deadline_;  ///< of the pending operation
  SteadyClock::time_point waitEnd_ = SteadyClock::time_point::max();
  std::uint64_t wait_ = 0;  ///< counts the timer's waits
  bool pending_ = false;
  bool expired_ = false;
};

}  // namespace Orbi::Asio
