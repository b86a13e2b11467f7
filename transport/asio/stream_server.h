#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>

#include "orbi/log/logger.h"
#include "tesselibs/unique_fd.h"
#include "transport/asio/deadline.h"
#include "transport/asio/handler_memory.h"

namespace Orbi::Asio {

using TcpSocket =
    boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

/// The condition of a server that turns nobody away by address.
struct AcceptAllCond {
  bool operator()(const boost::asio::ip::tcp::endpoint&) const { return true; }
};

struct StreamServerSpec {
  int backlog = 128;
  /// How long a listener waits for descriptors to become free when the process has run out of them.
  std::chrono::nanoseconds acceptDelay = std::chrono::milliseconds(500);
};

/// One listening socket: accepts one connection at a time and hands it on, until Close() or an
/// error that more waiting does not mend. Works on the thread that runs the I/O context. Goes on
/// when there is no memory for a connection.
template <class AcceptCond = AcceptAllCond>
class Acceptor : public std::enable_shared_from_this<Acceptor<AcceptCond>> {
 public:
  using Endpoint = boost::asio::ip::tcp::endpoint;
  using NewConnection = std::function<void(TcpSocket)>;

  Acceptor(boost::asio::io_context& context, const StreamServerSpec& spec,
           std::shared_ptr<Log::Logger> logger, NewConnection newConnection, AcceptCond cond = {})
      : acceptor_(context.get_executor()),
        timer_(context.get_executor()),
        spec_(spec),
        logger_(std::move(logger)),
        newConnection_(std::move(newConnection)),
        cond_(std::move(cond)) {}

  /// Opens the socket on `endpoint` and starts to accept. An IPv6 socket takes no IPv4 connections,
  /// so that each family can have its own.
  /// @throws boost::system::system_error
  void Listen(const Endpoint& endpoint) {
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(boost::asio::socket_base::reuse_address(true));
    if (endpoint.address().is_v6()) acceptor_.set_option(boost::asio::ip::v6_only(true));
    acceptor_.bind(endpoint);
    acceptor_.listen(spec_.backlog);
    acceptor_.native_non_blocking(true);
    endpoint_ = acceptor_.local_endpoint();
    AcceptNext();
  }

  /// Where it really listens: the endpoint given, with the port that the system chose if that was
  /// 0.
  [[nodiscard]] const Endpoint& LocalEndpoint() const { return endpoint_; }

  /// Whether it accepts, or will again when descriptors have become free.
  [[nodiscard]] bool IsListening() const { return acceptor_.is_open(); }

  void Close() {
    boost::system::error_code ignored;  // closed is closed
    acceptor_.close(ignored);
    timer_.cancel();
  }

 private:
  using Timer =
      boost::asio::basic_waitable_timer<SteadyClock, boost::asio::wait_traits<SteadyClock>,
                                        boost::asio::io_context::executor_type>;

  void AcceptNext() {
    // Waits first, because an operation that accepts by itself makes the connection's socket, and
    // is lost with it when there is no memory for that.
    acceptor_.async_wait(
        boost::asio::socket_base::wait_read,
        HoldIn(memory_, [self = this->shared_from_this()](const boost::system::error_code& ec) {
          if (self->acceptor_.is_open()) self->AcceptWaiting(ec);
        }));
  }

  /// Accepts connections that wait, only some, so that those that are open have their turn.
  void AcceptWaiting(boost::system::error_code ec) {
    constexpr int kAtOnce = 16;
    for (int count = 0; !ec && count < kAtOnce; ++count) {
      auto size = static_cast<socklen_t>(peer_.capacity());
      UniqueFd connection(::accept4(acceptor_.native_handle(), peer_.data(), &size, SOCK_CLOEXEC));
      if (connection) {
        peer_.resize(size);
        LogAccept(Log::kTrace, "NoError", "");
        HandOn(std::move(connection));
      } else {
        ec.assign(errno, boost::system::system_category());
      }
    }
    if (!ec || IsNoError(ec)) {
      AcceptNext();
    } else if (ec.value() == EMFILE) {
      LogAccept(Log::kDebug, ec, ";DelayAcceptError");
      AcceptLater();
    } else {
      LogAccept(Log::kDebug, ec, ";TerminalAcceptError");
      Close();
    }
  }

  /// Nobody waits, or who did has gone.
  static bool IsNoError(const boost::system::error_code& ec) {
    constexpr std::array kCodes = {EAGAIN, EINTR, ECONNABORTED, EPROTO};
    return std::ranges::find(kCodes, ec.value()) != kCodes.end();
  }

  void HandOn(UniqueFd connection) {
    try {
      TcpSocket socket(acceptor_.get_executor());
      socket.assign(peer_.protocol(), connection.Get());
      (void)connection.Release();
      if (cond_(peer_)) newConnection_(std::move(socket));
    } catch (const std::exception& error) {
      Log::Write(*logger_, Log::kDebug, "Connection dropped: ", error.what());
    }
  }

  void AcceptLater() {
    timer_.expires_at(DeadlineIn(spec_.acceptDelay));
    timer_.async_wait(
        HoldIn(memory_, [self = this->shared_from_this()](const boost::system::error_code& ec) {
          if (!self->acceptor_.is_open()) return;
          if (ec) Log::Write(*self->logger_, Log::kDebug, "Delay timer Accept Error: ", ec);
          self->AcceptNext();
        }));
  }

  template <class Result>
  void LogAccept(int level, const Result& result, std::string_view classification) {
    Log::Write(*logger_, level, "Accept: ", result, ".Acceptor info:", endpoint_, classification);
  }

  boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, boost::asio::io_context::executor_type>
      acceptor_;
  Timer timer_;
  const StreamServerSpec spec_;
  const std::shared_ptr<Log::Logger> logger_;
  const NewConnection newConnection_;
  const AcceptCond cond_;
  HandlerMemory memory_;  ///< of the one operation that is pending
  Endpoint endpoint_;
  Endpoint peer_;  ///< of the connection being accepted
};

/// A server of one protocol on any number of endpoints. Each accepted connection becomes a
/// StreamHandler, which owns itself from then on. Listeners and connections outlive the server;
/// they end with the I/O context.
///
/// Not thread-safe: used before the I/O context runs, on its thread, or after it was stopped.
template <class StreamHandler, class AcceptCond = AcceptAllCond>
class StreamServer {
 public:
  using Endpoint = boost::asio::ip::tcp::endpoint;
  using Listener = std::shared_ptr<Acceptor<AcceptCond>>;

  StreamServer(boost::asio::io_context& ioContext, StreamServerSpec spec,
               std::shared_ptr<Log::Logger> logger,
               std::shared_ptr<const typename StreamHandler::Context> handlerContext)
      : ioContext_(ioContext),
        spec_(spec),
        logger_(std::move(logger)),
        handlerContext_(std::move(handlerContext)) {}

  StreamServer(const StreamServer&) = delete;
  StreamServer& operator=(const StreamServer&) = delete;

  /// Accepts connections on one more endpoint, until the listener is closed.
  /// @throws boost::system::system_error when the socket cannot be opened, bound or listened on
  [[nodiscard]] Listener Listen(const Endpoint& endpoint) {
    auto acceptor = std::make_shared<Acceptor<AcceptCond>>(
        ioContext_, spec_, logger_, [context = handlerContext_](TcpSocket socket) {
          std::make_shared<StreamHandler>(std::move(socket), context)->Start();
        });
    acceptor->Listen(endpoint);
    Log::Write(*logger_, Log::kDebug, "Listening on: ", acceptor->LocalEndpoint());
    return acceptor;
  }

 private:
  boost::asio::io_context& ioContext_;
  const StreamServerSpec spec_;
  const std::shared_ptr<Log::Logger> logger_;
  const std::shared_ptr<const typename StreamHandler::Context> handlerContext_;
};

}  // namespace Orbi::Asio
