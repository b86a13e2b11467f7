#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <boost/asio/post.hpp>

#include "transport/http_server.h"

/// For tests: an HTTP server on loopback with a thread of its own, clients of it, and the log it
/// writes.
namespace Orbi::Transport::PicoHttp {

/// No wait in a test lasts longer; a condition that takes this long is not coming.
inline constexpr std::chrono::seconds kPatience{20};

class RecordingLogger : public Log::Logger {
 public:
  std::unique_ptr<Log::LogRecord> CreateRecord(int) override {
    return std::make_unique<Record>(*this);
  }

  [[nodiscard]] std::string Text() {
    const std::lock_guard lock(mutex_);
    return text_;
  }

  [[nodiscard]] bool WaitFor(std::string_view part) {
    std::unique_lock lock(mutex_);
    return grown_.wait_for(lock, kPatience, [&] { return text_.find(part) != text_.npos; });
  }

 private:
  struct Record : Log::LogRecord {
    explicit Record(RecordingLogger& owner) : owner(owner) {}
    ~Record() override {
      const std::lock_guard lock(owner.mutex_);
      owner.text_ += stream.str() + '\n';
      owner.grown_.notify_all();
    }
    std::ostream& Stream() override { return stream; }

    RecordingLogger& owner;
    std::ostringstream stream;
  };

  std::mutex mutex_;
  std::condition_variable grown_;
  std::string text_;
};

class LoopbackServer {
 public:
  /// A server in a context, and with a logger, of its own unless others are given.
  explicit LoopbackServer(
      RequestHandler& handler, const ProtocolHandlerSpec& spec = {},
      std::shared_ptr<boost::asio::io_context> context =
          std::make_shared<boost::asio::io_context>(),
      std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>())
      : logger_(std::move(logger)),
        context_(std::move(context)),
        server_(*context_, Config(spec), handler, logger_) {
    if (const auto ec = server_.Listen()) throw boost::system::system_error(ec);
    endpoint_ = server_.LocalEndpoints().front();
    thread_ = std::thread([this] { context_->run(); });
  }

  ~LoopbackServer() {
    context_->stop();
    thread_.join();
  }

  /// Does something on the server's own thread and waits for its end.
  template <class Step>
  void Do(Step step) {
    std::promise<void> done;
    boost::asio::post(*context_, [&] {
      step();
      done.set_value();
    });
    done.get_future().wait();
  }

  RecordingLogger& Logger() { return *logger_; }
  [[nodiscard]] const boost::asio::ip::tcp::endpoint& Endpoint() const { return endpoint_; }

 private:
  static ServerConfig Config(const ProtocolHandlerSpec& spec) {
    const auto any = [](const char* address) {
      return boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address(address), 0);
    };
    return {.endpoint4 = any("127.0.0.1"), .endpoint6 = any("::1"), .serverSpec = spec};
  }

  const std::shared_ptr<RecordingLogger> logger_;
  const std::shared_ptr<boost::asio::io_context> context_;
  HttpServer server_;
  boost::asio::ip::tcp::endpoint endpoint_;
  std::thread thread_;
};

/// A blocking connection.
class Client {
 public:
  explicit Client(const boost::asio::ip::tcp::endpoint& server, int receiveBuffer = 0)
      : socket_(::socket(server.protocol().family(), SOCK_STREAM, 0)) {
    const timeval patience{kPatience.count(), 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (receiveBuffer != 0)
      ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    if (::connect(socket_, server.data(), static_cast<socklen_t>(server.size())) != 0)
      throw std::runtime_error("cannot connect");
  }
  explicit Client(const LoopbackServer& server) : Client(server.Endpoint()) {}
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { ::close(socket_); }

  /// Sends in segments of at most `step` bytes. A server that has closed meanwhile is no error
  /// here.
  Client& Send(std::string_view bytes, std::size_t step = std::string_view::npos) {
    (void)TrySend(bytes, step);
    return *this;
  }

  /// @return how many of the bytes could be sent before the server closed
  std::size_t TrySend(std::string_view bytes, std::size_t step = std::string_view::npos) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const auto count = std::min(step, bytes.size() - sent);
      const auto taken = ::send(socket_, bytes.data() + sent, count, MSG_NOSIGNAL);
      if (taken <= 0) break;
      sent += static_cast<std::size_t>(taken);
    }
    return sent;
  }

  Client& FinishSending() {
    ::shutdown(socket_, SHUT_WR);
    return *this;
  }

  /// Reads up to `count` bytes, fewer at the end of the stream.
  /// @throws std::runtime_error when the connection is reset or nothing arrives
  std::string Read(std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t filled = 0;
    while (filled < count) {
      const auto got = ::recv(socket_, bytes.data() + filled, count - filled, 0);
      if (got < 0) throw std::runtime_error(errno == EAGAIN ? "nothing arrives" : "reset");
      if (got == 0) break;
      filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    return bytes;
  }

  std::string ReadToEnd() {
    std::string all;
    for (std::string part = Read(65536); !part.empty(); part = Read(65536)) all += part;
    return all;
  }

  /// Closes with a reset instead of an orderly end.
  void Reset() {
    const linger now{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    ::close(std::exchange(socket_, -1));
  }

 private:
  int socket_;
};

}  // namespace Orbi::Transport::PicoHttp
