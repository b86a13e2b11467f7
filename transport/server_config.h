#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>

#include "transport/http/body_memory.h"
#include "transport/http/request_head.h"

namespace Orbi::Transport::PicoHttp {

/// Whether a request with this head is acceptable.
using RequestSpecExtractor = std::function<bool(const RequestHead&)>;

/// How connections are served.
struct ProtocolHandlerSpec {
  std::chrono::nanoseconds readTimeout = std::chrono::minutes(20);   ///< of each single read
  std::chrono::nanoseconds writeTimeout = std::chrono::minutes(30);  ///< of each single write
  std::uint64_t httpBodySizeLimitInBytes = 2'500'000;
  BodyMemory::Limits bodyMemory = {};
  std::size_t mostConnections = 1024;  ///< open at the same time; see ConnectionTable
  /// The account of the program that passes on others' requests, whose word on their addresses is
  /// taken.
  std::optional<uid_t> front = std::nullopt;
  /// The origin whose web pages may call, as browsers tell it; none when empty.
  std::string allowedOrigin{};
  /// When set, all of them must accept a request's head before the request handler is asked.
  std::optional<std::vector<RequestSpecExtractor>> extractors = std::nullopt;
};

/// Where the server listens and how it serves.
struct ServerConfig {
  std::int32_t port =
      0;  ///< when not zero, listening puts the wildcard addresses and this port into the endpoints
  boost::asio::ip::tcp::endpoint endpoint4{boost::asio::ip::tcp::v4(), 0};
  boost::asio::ip::tcp::endpoint endpoint6{boost::asio::ip::tcp::v6(), 0};
  ProtocolHandlerSpec serverSpec;
  /// How often a family that does not listen is tried again.
  std::chrono::milliseconds listenInterval{5000};
};

/// Text forms for diagnostics. They tell of a localizer, which the server does not have: answers
/// are localized by whoever makes them.
std::ostream& operator<<(std::ostream& out, const ProtocolHandlerSpec& spec);
std::ostream& operator<<(std::ostream& out, const ServerConfig& config);

/// "999 nanoseconds", "20 minutes", "1 minutes and 30 seconds": whole units, rounded down.
std::string DurationText(std::chrono::nanoseconds duration);

}  // namespace Orbi::Transport::PicoHttp
