#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "authn/check_threads.h"
#include "orbi/authn/authn_handler.h"
#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi::Authn {

/// The outermost link of the provider chain: forwards a call when one of its handlers accepts the
/// call's credentials, or when the method needs none, and answers all others `unauthenticated`.
///
/// The first handler that takes the credentials decides, on a thread that may wait for what its
/// check waits for; an accepted call goes on from there. However a call ends, its password is
/// overwritten before the call goes on, and only a handler's word makes it authenticated. An error
/// inside a handler refuses the call. A call whose check finds no place to wait is answered
/// `service_unavailable`.
class AsyncAuthnFilter : public Orbi::Core::AsyncApiProvider {
 public:
  /// Whether the method may be called without credentials.
  using NeedsNoCredentials = std::function<bool(const Orbi::Core::MethodIdentifier&)>;

  /// @param threads  outlives the filter and every call
  AsyncAuthnFilter(Orbi::Core::AsyncApiProviderPtr next, NeedsNoCredentials needsNoCredentials,
                   std::vector<Orbi::Authn::AuthnHandlerPtr> handlers, CheckThreads& threads);

  void Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
              Orbi::Core::ExecutionContextPtr context,
              Orbi::Core::MethodCompletion completion) override;

 private:
  struct Call;

  void Check(const std::shared_ptr<Call>& call) const;

  const Orbi::Core::AsyncApiProviderPtr next_;
  const NeedsNoCredentials needsNoCredentials_;
  const std::vector<Orbi::Authn::AuthnHandlerPtr> handlers_;
  CheckThreads& threads_;
};

}  // namespace Host::Settings::SettingsApi::Authn
