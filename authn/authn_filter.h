#pragma once

#include <functional>
#include <vector>

#include "orbi/authn/authn_handler.h"
#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi::Authn {

/// The outermost link of the provider chain: forwards a call when one of its handlers accepts the
/// call's credentials, or when the method needs none, and answers all others `unauthenticated`.
///
/// The handlers are asked in order until one of them decides. However a call ends, its password is
/// overwritten before the call goes on, and only a handler's word makes it authenticated. An error
/// inside a handler refuses the call.
class AsyncAuthnFilter : public Orbi::Core::AsyncApiProvider {
 public:
  /// Whether the method may be called without credentials.
  using NeedsNoCredentials = std::function<bool(const Orbi::Core::MethodIdentifier&)>;

  AsyncAuthnFilter(Orbi::Core::AsyncApiProviderPtr next, NeedsNoCredentials needsNoCredentials,
                   std::vector<Orbi::Authn::AuthnHandlerPtr> handlers);

  [[nodiscard]] std::string_view Name() const override { return "AsyncAuthnFilter"; }
  void Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
              Orbi::Core::ExecutionContextPtr context,
              Orbi::Core::MethodCompletion completion) override;

 private:
  [[nodiscard]] bool IsAuthenticated(Orbi::Core::ExecutionContext& context) const;

  const Orbi::Core::AsyncApiProviderPtr next_;
  const NeedsNoCredentials needsNoCredentials_;
  const std::vector<Orbi::Authn::AuthnHandlerPtr> handlers_;
};

}  // namespace Host::Settings::SettingsApi::Authn
