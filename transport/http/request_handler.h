#pragma once

#include <memory>
#include <string>

#include "orbi/core/peer.h"
#include "transport/http/request_head.h"
#include "transport/http/response.h"

namespace Orbi::Transport::PicoHttp {

/// A request that can be handled, while its body is being collected.
class AcceptedRequest {
 public:
  virtual ~AcceptedRequest() = default;

  /// Answers the request through `sink`, now or later. An exception out of this function costs the
  /// client its connection, nothing else. Called at most once.
  /// @param body  the whole body, transfer coding removed, at most
  ///     ServerConfig::httpBodySizeLimitInBytes long
  virtual void Handle(std::string body, ResponseSink sink) = 0;
};

/// What stands behind the HTTP server and answers its requests. All calls come from the thread that
/// runs the server's I/O context. A handler outlives every call of that context's run().
///
/// For each request whose head was read: Accept(), then, when the whole body has been collected,
/// Handle() of what that returned. Requests of one connection never overlap, those of different
/// connections do.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;

  /// @param head  this object and its views stay valid until the sink of the request is called or
  ///     destroyed
  /// @param peer  whose request it is
  /// @return nothing when a request with this head cannot be handled at all: it is answered 400 and
  ///     its connection closed, without its body being read
  [[nodiscard]] virtual std::shared_ptr<AcceptedRequest> Accept(const RequestHead& head,
                                                                Core::Peer peer) = 0;
};

}  // namespace Orbi::Transport::PicoHttp
