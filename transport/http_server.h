#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include "orbi/log/logger.h"
#include "transport/http/request_handler.h"
#include "transport/server_config.h"

namespace Orbi::Transport::PicoHttp {

/// The HTTP/1.1 server (RFC 9112): listens on one IPv4 and one IPv6 endpoint and has a request
/// handler answer what arrives.
///
/// All its work is done by the one thread that runs the I/O context. The object itself is used
/// before that thread starts, on it, or after the context was stopped. Destroying the server stops
/// listening; open connections, and the operations abandoned by stopping the context, go with the
/// context.
class HttpServer {
 public:
  /// @param handler  must live as long as the context runs
  HttpServer(boost::asio::io_context& context, ServerConfig config, RequestHandler& handler,
             std::shared_ptr<Log::Logger> logger);
  ~HttpServer();

  /// What Listening() has become.
  using ListeningChanged = std::function<void(const std::string& families)>;

  /// Starts to listen, on IPv4 first. A family that cannot is logged and left out; it is tried
  /// again in every ServerConfig::listenInterval, without a word, as is one that is lost later.
  /// @param changed  called on the thread that runs the I/O context
  /// @return PicoHttpError::kFailedToListen when neither family listens
  [[nodiscard]] boost::system::error_code Listen(ListeningChanged changed = {});

  /// The families that it listens on: "IPv4 and IPv6", "IPv4", "IPv6", or none.
  [[nodiscard]] std::string Listening() const;

  /// Where it listens, with the ports that the system chose for those given as 0.
  [[nodiscard]] std::vector<boost::asio::ip::tcp::endpoint> LocalEndpoints() const;

 private:
  class Server;

  std::shared_ptr<Server> server_;
};

}  // namespace Orbi::Transport::PicoHttp
