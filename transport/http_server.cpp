#include "transport/http_server.h"

#include <utility>

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

struct HttpServer::Server : Orbi::Asio::StreamServer<PicoHttpStreamHandler<Orbi::Asio::TcpSocket>> {
  using StreamServer::StreamServer;
};

HttpServer::HttpServer(boost::asio::io_context& context, ServerConfig config,
                       RequestHandler& handler, std::shared_ptr<Log::Logger> logger)
    : config_(std::move(config)),
      logger_(std::move(logger)),
      server_(
          std::make_unique<Server>(context, Orbi::Asio::StreamServerSpec{}, logger_,
                                   MakeContext(context, config_.serverSpec, handler, logger_))) {}

HttpServer::~HttpServer() = default;

boost::system::error_code HttpServer::Listen() {
  if (config_.port != 0) {
    const auto port = static_cast<std::uint16_t>(config_.port);
    config_.endpoint4 = {tcp::v4(), port};
    config_.endpoint6 = {tcp::v6(), port};
  }
  boost::system::error_code result = PicoHttpError::kFailedToListen;
  for (const auto& [family, endpoint] :
       {std::pair("IPv4", config_.endpoint4), std::pair("IPv6", config_.endpoint6)}) {
    try {
      server_->Listen(endpoint);
      result = {};
    } catch (const boost::system::system_error& error) {
      const auto& ec = error.code();
      Log::Write(*logger_, Log::kDebug, family, " Failed to listen on: ", endpoint,
                 " ec: ", ec.category().name(), ":", ec.value());
    }
  }
  return result;
}

std::vector<tcp::endpoint> HttpServer::LocalEndpoints() const { return server_->LocalEndpoints(); }

}  // namespace Orbi::Transport::PicoHttp
