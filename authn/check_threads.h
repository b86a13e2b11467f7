#pragma once

#include <functional>
#include <string>

#include "orbi/authn/authn_handler.h"

namespace Host::Settings::SettingsApi::Authn {

/// The threads that credentials are checked on.
class CheckThreads {
 public:
  using Check = std::function<bool()>;  ///< must not throw
  using Done = std::function<void(bool accepted)>;

  virtual ~CheckThreads() = default;

  /// Has a check made where it may wait.
  /// @param party  where the credentials came from (see Orbi::Core::Peer)
  /// @param done  told of the result, on any thread; destroyed without a call when the daemon stops
  ///              first
  /// @return false when the check finds no place to wait: nothing comes of it then
  [[nodiscard]] virtual bool Run(Orbi::Authn::Wait wait, const std::string& party, Check check,
                                 Done done) = 0;
};

}  // namespace Host::Settings::SettingsApi::Authn
