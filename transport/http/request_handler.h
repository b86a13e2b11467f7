#pragma once

#include <string>
#include <string_view>

#include "transport/http/request_head.h"
#include "transport/http/response.h"

namespace Orbi::Transport::PicoHttp {

/// What stands behind the HTTP server and answers its requests. All calls come from the thread that
/// runs the server's I/O context. A handler outlives every call of that context's run().
///
/// For each request whose head was read: Accepts(), then, when that held and the whole body has
/// been collected, Handle(). Requests of one connection never overlap, those of different
/// connections do.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;

  /// Whether a request with this head can be handled at all. If not, it is answered 400 and its
  /// connection closed, without its body being read.
  [[nodiscard]] virtual bool Accepts(const RequestHead& head) = 0;

  /// Answers a request through `sink`, now or later. An exception out of this function costs the
  /// client its connection, nothing else.
  /// @param head  this object and its views stay valid until `sink` is called or destroyed
  /// @param peer  the address of the client, in text; as valid as the head
  /// @param body  the whole body, transfer coding removed, at most
  ///     ServerConfig::httpBodySizeLimitInBytes long
  virtual void Handle(const RequestHead& head, std::string_view peer, std::string body,
                      ResponseSink sink) = 0;
};

}  // namespace Orbi::Transport::PicoHttp
