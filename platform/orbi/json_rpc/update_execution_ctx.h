#pragma once

#include <optional>
#include <span>
#include <vector>

#include <boost/system/error_code.hpp>

#include "orbi/core/execution_context.h"
#include "orbi/core/provider.h"
#include "orbi/http/phr_parse.h"
#include "orbi/json_rpc/request.h"
#include "orbi/l10n/localizer.h"

namespace Orbi::Provider::JsonRpc1_1 {

struct UpdateExecutionCtxHelper {
  /// Adds to a call's context what the HTTP headers say: "orbi-ctx-NAME" is the
  /// application-context entry NAME unless the payload has that entry (names of headers have no
  /// letter case), "accept-language" the language. The entries "format-locale" and "timezone" are
  /// taken for the localisation context, too.
  /// @param headers  names in lower case, sorted by name
  /// @param method   as the payload names it
  /// @param localizer  knows which languages there are; formatting locales are "C" and these
  /// @param passedOver  why the client's language and formatting locale were, for the defaults
  /// @return an error when "orbi-service" or "orbi-operation" names another method, or when payload
  ///         and headers bring more than Core::kMaxApplicationEntries entries
  [[nodiscard]] static std::optional<Protocol::Json::ProtocolError> Update(
      std::span<const Transport::PicoHttp::HeaderField> headers,
      const Core::MethodIdentifier& method, Core::ExecutionContext& context,
      const L10n::Localizer& localizer, std::vector<boost::system::error_code>& passedOver);
};

}  // namespace Orbi::Provider::JsonRpc1_1
