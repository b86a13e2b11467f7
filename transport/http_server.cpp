#include "transport/http_server.h"

#include <array>
#include <chrono>
#include <utility>

#include <boost/asio/steady_timer.hpp>

#include "transport/asio/handler_memory.h"
#include "transport/asio/stream_server.h"
#include "transport/errors.h"
#include "transport/http/stream_handler.h"

namespace Orbi::Transport::PicoHttp {

using boost::asio::ip::tcp;

namespace {

std::shared_ptr<const ConnectionContext> MakeContext(boost::asio::io_context& context,
                                                     const ProtocolHandlerSpec& spec,
                                                     RequestHandler& handler,
                                                     const std::shared_ptr<Log::Logger>& logger) {
  return std::make_shared<ConnectionContext>(ConnectionContext{
      spec, handler, logger,
      std::make_shared<BodyMemory>(context, spec.httpBodySizeLimitInBytes, spec.bodyMemory),
      std::make_unique<ConnectionTable>(spec.mostConnections)});
}

}  // namespace

/// The listeners, and the timer by which those that have ended are made again. The timer's handler
/// keeps this object.
class HttpServer::Server : public std::enable_shared_from_this<Server> {
 public:
  Server(boost::asio::io_context& context, const ServerConfig& config,
         std::shared_ptr<Log::Logger> logger,
         std::shared_ptr<const ConnectionContext> connectionContext)
      : listeners_(context, {}, logger, std::move(connectionContext)),
        families_{Family{"IPv4", config.endpoint4, nullptr},
                  Family{"IPv6", config.endpoint6, nullptr}},
        interval_(config.listenInterval),
        logger_(std::move(logger)),
        timer_(context) {}

  /// What follows is tried as long as the I/O context runs.
  void Start(ListeningChanged changed) {
    changed_ = std::move(changed);
    for (Family& family : families_) {
      if (const auto ec = Listen(family)) {
        Log::Write(*logger_, Log::kDebug, family.name, " Failed to listen on: ", family.endpoint,
                   " ec: ", ec.category().name(), ":", ec.value());
      }
    }
    told_ = Listening();
    WatchLater();
  }

  void Stop() {
    stopped_ = true;
    timer_.cancel();
    for (Family& family : families_) {
      if (family.acceptor) family.acceptor->Close();
    }
  }

  [[nodiscard]] std::string Listening() const {
    std::string names;
    for (const Family& family : families_) {
      if (!family.IsListening()) continue;
      if (!names.empty()) names += " and ";
      names += family.name;
    }
    return names;
  }

  [[nodiscard]] std::vector<tcp::endpoint> LocalEndpoints() const {
    std::vector<tcp::endpoint> endpoints;
    for (const Family& family : families_) {
      if (family.IsListening()) endpoints.push_back(family.acceptor->LocalEndpoint());
    }
    return endpoints;
  }

 private:
  using Listeners = Orbi::Asio::StreamServer<PicoHttpStreamHandler<Orbi::Asio::TcpSocket>>;
  struct Family {
    const char* name;
    tcp::endpoint endpoint;
    Listeners::Listener acceptor;

    [[nodiscard]] bool IsListening() const { return acceptor && acceptor->IsListening(); }
  };

  boost::system::error_code Listen(Family& family) {
    try {
      family.acceptor = listeners_.Listen(family.endpoint);
      return {};
    } catch (const boost::system::system_error& error) {
      return error.code();
    }
  }

  void WatchLater() {
    timer_.expires_after(interval_);
    timer_.async_wait(
        HoldIn(memory_, [self = shared_from_this()](const boost::system::error_code&) {
          if (self->stopped_) return;
          self->WatchLater();
          self->Watch();
        }));
  }

  /// Says what has been lost before it is tried again, which nobody is told when it fails.
  void Watch() {
    TellChange();
    for (Family& family : families_) {
      if (!family.IsListening()) (void)Listen(family);
    }
    TellChange();
  }

  void TellChange() {
    const std::string now = Listening();
    if (now == told_) return;
    if (changed_) changed_(now);
    told_ = now;
  }

  Listeners listeners_;
  std::array<Family, 2> families_;
  const std::chrono::milliseconds interval_;
  const std::shared_ptr<Log::Logger> logger_;
  ListeningChanged changed_;
  std::string told_;
  boost::asio::steady_timer timer_;
  Orbi::Asio::HandlerMemory memory_;
  bool stopped_ = false;
};

HttpServer::HttpServer(boost::asio::io_context& context, ServerConfig config,
                       RequestHandler& handler, std::shared_ptr<Log::Logger> logger) {
  if (config.port != 0) {
    const auto port = static_cast<std::uint16_t>(config.port);
    config.endpoint4 = {tcp::v4(), port};
    config.endpoint6 = {tcp::v6(), port};
  }
  auto connections = MakeContext(context, config.serverSpec, handler, logger);
  server_ = std::make_shared<Server>(context, config, std::move(logger), std::move(connections));
}

HttpServer::~HttpServer() { server_->Stop(); }

boost::system::error_code HttpServer::Listen(ListeningChanged changed) {
  server_->Start(std::move(changed));
  if (Listening().empty()) return PicoHttpError::kFailedToListen;
  return {};
}

std::string HttpServer::Listening() const { return server_->Listening(); }

std::vector<tcp::endpoint> HttpServer::LocalEndpoints() const { return server_->LocalEndpoints(); }

}  // namespace Orbi::Transport::PicoHttp
