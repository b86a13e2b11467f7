#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "authn/audit_log.h"
#include "authn/check_threads.h"
#include "orbi/authn/authn_handler.h"
#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi::Authn {

/// The outermost link of the provider chain: forwards a call that uses one of the schemes which its
/// method allows, when one of the handlers accepts the call's credentials, and answers all others
/// `unauthenticated`. Where "no authentication" is one of several schemes, credentials of another
/// one are checked all the same. Each authenticated or refused call is told in the audit log.
///
/// The first handler that takes the credentials decides, on a thread that may wait for what its
/// check waits for; an accepted call goes on from there. However a call ends, its password is
/// overwritten before the call goes on, and only a handler's word makes it authenticated. An error
/// inside a handler refuses the call. A call whose check finds no place to wait is answered
/// `service_unavailable`.
class AsyncAuthnFilter : public Orbi::Core::AsyncApiProvider {
 public:
  /// The schemes that a method may be called by; what it returns outlives the filter.
  using AllowedSchemes =
      std::function<const std::vector<std::string>&(const Orbi::Core::MethodIdentifier&)>;

  /// @param threads  outlives the filter and every call
  /// @param io       see AuditLog
  AsyncAuthnFilter(Orbi::Core::AsyncApiProviderPtr next, AllowedSchemes allowedSchemes,
                   std::vector<Orbi::Authn::AuthnHandlerPtr> handlers, CheckThreads& threads,
                   boost::asio::io_context& io);

  void Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
              Orbi::Core::ExecutionContextPtr context,
              Orbi::Core::MethodCompletion completion) override;

 private:
  struct Call;

  void Check(const std::shared_ptr<Call>& call) const;

  const Orbi::Core::AsyncApiProviderPtr next_;
  const AllowedSchemes allowedSchemes_;
  const std::vector<Orbi::Authn::AuthnHandlerPtr> handlers_;
  CheckThreads& threads_;
  const std::shared_ptr<AuditLog> audit_;
};

}  // namespace Host::Settings::SettingsApi::Authn
