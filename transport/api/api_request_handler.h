#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>

#include "orbi/core/provider.h"
#include "orbi/l10n/localizer.h"
#include "orbi/log/logger.h"
#include "transport/http/request_handler.h"

namespace Orbi::Transport::PicoHttp {

struct ApiRequestHandlerSpec {
  Core::AsyncApiProviderPtr provider;
  /// The server's; answers are sent from the thread that runs it.
  boost::asio::io_context& ioContext;
  std::shared_ptr<Log::Logger> logger;
  std::shared_ptr<const L10n::Localizer> localizer = L10n::LocalizerHelpers::GetDefaultLocalizer();
  std::uint64_t requestSizeLimitInBytes = 2'500'000;
};

/// Answers HTTP requests that are calls of protocol 1.1 with the results of a provider.
///
/// Whatever comes of an accepted request is answered 200: a result, an API error ("orbi-error"
/// names it), or, for a body that is no call, a JSON-RPC error. Nothing that goes wrong with a
/// request gets out of here as an exception.
///
/// A result may arrive on any thread, and is worded and serialised there: a long answer does not
/// keep the server from the other connections.
class PicoHttpApiRequestHandler final : public RequestHandler {
 public:
  explicit PicoHttpApiRequestHandler(ApiRequestHandlerSpec spec);

  /// Accepts requests whose body is announced as plain JSON and whose method is one of the API's: a
  /// call comes with POST, or with a DELETE that brings it as its body.
  [[nodiscard]] std::shared_ptr<AcceptedRequest> Accept(const RequestHead& head,
                                                        Core::Peer peer) override;

 private:
  const std::shared_ptr<const ApiRequestHandlerSpec> spec_;
};

}  // namespace Orbi::Transport::PicoHttp
