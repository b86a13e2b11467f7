#pragma once

#include <memory>
#include <optional>

#include "orbi/core/execution_context.h"

namespace Orbi::Authn {

/// What a check of credentials waits for, which decides on the thread that it may be made on.
enum class Wait {
  kNone,    ///< nothing but memory: any thread
  kFiles,   ///< files: a thread that may wait
  kSystem,  ///< the system's authentication: a thread where one check is made at a time
};

/// Checks the credentials of one or more schemes.
class AuthnHandler {
 public:
  virtual ~AuthnHandler() = default;

  /// Whether the credentials are for this handler to check, and what the check waits for. Waits for
  /// nothing itself; callable from any thread.
  /// @return nothing when they are not, as those of another scheme: the next handler is asked
  [[nodiscard]] virtual std::optional<Wait> Takes(const Core::ExecutionContext& context) const = 0;

  /// Checks the credentials of a call that the handler takes, on a thread that is right for it.
  /// @return whether they are accepted; `context.authentication` is then set, the user's
  ///         localisation context included
  [[nodiscard]] virtual bool Authenticate(Core::ExecutionContext& context) = 0;
};

using AuthnHandlerPtr = std::shared_ptr<AuthnHandler>;

}  // namespace Orbi::Authn
