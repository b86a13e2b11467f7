#pragma once

#include <memory>
#include <optional>

#include "orbi/core/execution_context.h"

namespace Orbi::Authn {

/// What a handler says about a call's credentials.
enum class Verdict {
  kNotMine,   ///< another scheme: ask the next handler
  kAccepted,  ///< the context's authentication is set
  kRefused,   ///< wrong credentials: the call fails, no further handler is asked
};

/// Checks the credentials of one or more schemes. Called on the transport's thread, one call at a
/// time.
class AuthnHandler {
 public:
  virtual ~AuthnHandler() = default;

  /// On kAccepted sets `context.authentication`, the user's localisation context included.
  [[nodiscard]] virtual Verdict Authenticate(Core::ExecutionContext& context) = 0;
};

using AuthnHandlerPtr = std::shared_ptr<AuthnHandler>;

}  // namespace Orbi::Authn
