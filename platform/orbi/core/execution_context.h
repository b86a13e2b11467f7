#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "orbi/core/peer.h"

/// What accompanies a call beside its input: who calls, for whom the answer is worded, what the
/// client told about itself. Filled while a request travels down the provider chain, then read by
/// services; belongs to one call, and is handed from thread to thread with it.
namespace Orbi::Core {

/// How texts for the client are worded.
struct LocalizationContext {
  std::string language = "en_US";
  std::string formatLocale = "C";
  std::string timeZone = "Etc/UTC";
};

/// The credentials of a call, as the client sent them.
struct SecurityContext {
  std::optional<std::string> schemeId;
  std::string userName;
  std::string password;

  SecurityContext() = default;
  SecurityContext(const SecurityContext&) = delete;
  SecurityContext& operator=(const SecurityContext&) = delete;
  ~SecurityContext();

  /// Overwrites the password in memory, in a way that the compiler keeps.
  void ClearPassword();
};

/// The outcome of a successful authentication.
struct AuthenticationResult {
  std::string type;  ///< for example "UserPassAuthentication"
  std::string userName;
  LocalizationContext localization;  ///< the user's own, for what the client leaves open
};

/// More entries than these in a call's application context are refused: they come from callers
/// whose credentials nobody has seen yet.
inline constexpr std::size_t kMaxApplicationEntries = 64;

struct ExecutionContext {
  Peer peer;                                       ///< where the call came from
  std::map<std::string, std::string> application;  ///< "opId" and whatever else the client sent
  std::unique_ptr<SecurityContext> security;       ///< empty when the call carries no credentials
  std::optional<AuthenticationResult> authentication;
  LocalizationContext localization;
};

using ExecutionContextPtr = std::shared_ptr<ExecutionContext>;

}  // namespace Orbi::Core
