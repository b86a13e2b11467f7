#pragma once

#include <memory>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "apps/lifecycle/orbi/include/logger.h"
#include "daemon/call_threads.h"
#include "orbi/core/provider.h"
#include "transport/api/api_request_handler.h"
#include "transport/http_server.h"

namespace Host::Settings::SettingsApi {

/// The HTTP service of the daemon: the port of the services-database entry "kestreld", the server
/// that listens there on IPv4 and IPv6, and the one I/O thread that carries all connections;
/// with it the threads that calls wait on and the scheduler of the daemon's own tasks (feature
/// switch "task_scheduler").
///
/// Used from the main thread only.
class Endpoint {
 public:
  /// Looks the port up and builds the server. Without a port the process stops.
  /// @param io       outlives the endpoint
  /// @param threads  what the provider's calls wait on; ended with the endpoint, which they outlive
  Endpoint(Orbi::Core::AsyncApiProviderPtr provider, boost::asio::io_context& io,
           CallThreads& threads, std::shared_ptr<OrbiLoggerWrapper> logger);
  ~Endpoint();

  /// Listens and starts the I/O thread. A family that cannot listen is logged and left out, but
  /// tried again for as long as the daemon runs. The service manager and the log are told whether
  /// one listens, at each change.
  /// Starting twice ends the process.
  /// @throws std::system_error when no thread can be had
  void Start();

  /// Abandons what is pending, joins the I/O thread, then ends the scheduler and the calls that
  /// run. What has not ended after some five seconds ends with the process, here. Does nothing when
  /// not started.
  void Stop();

 private:
  void TellListening(const std::string& families);

  int port_;
  std::shared_ptr<OrbiLoggerWrapper> logger_;
  Orbi::Transport::PicoHttp::PicoHttpApiRequestHandler handler_;
  Orbi::Transport::PicoHttp::HttpServer server_;
  boost::asio::io_context& io_;
  CallThreads& threads_;
  std::thread ioThread_;
  bool listens_ = false;  ///< as it was told
};

}  // namespace Host::Settings::SettingsApi
