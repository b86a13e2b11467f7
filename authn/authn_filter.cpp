#include "authn/authn_filter.h"

#include <algorithm>
#include <exception>
#include <string_view>
#include <utility>

#include "orbi/l10n/catalogue.h"
#include "orbi/metadata/authentication_container.h"
#include "orbi/std/errors.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi::Authn {
namespace {

using Orbi::Provider::Metadata::Authentication::kNoAuthentication;

/// Says nothing about why: whoever guesses learns no more than that it was wrong.
Orbi::Data::ErrorValue Unauthenticated() {
  return Com::Tessel::Orbi::Std::Errors::Unauthenticated(
      {Orbi::L10n::FrameworkMessage("com.tessel.orbi.std.unauthenticated")});
}

/// A check that throws refuses the call.
bool IsAccepted(Orbi::Authn::AuthnHandler& handler, const Orbi::Core::MethodIdentifier& method,
                Orbi::Core::ExecutionContext& context) noexcept {
  try {
    return handler.Authenticate(context);
  } catch (const std::exception& error) {
    Log_Level(LogLevel::kCritical, "Authentication failed for method: %s.%s. Error: %s\n",
              method.service.c_str(), method.operation.c_str(), error.what());
  }
  return false;
}

}  // namespace

/// A call on its way through the filter. Its password does not outlive the check.
struct AsyncAuthnFilter::Call : std::enable_shared_from_this<Call> {
  Call(std::shared_ptr<AuditLog> auditLog, Orbi::Core::AsyncApiProviderPtr nextLink,
       Orbi::Core::MethodIdentifier calledMethod, Orbi::Data::Value givenInput,
       Orbi::Core::ExecutionContextPtr callContext, Orbi::Core::MethodCompletion done)
      : audit(std::move(auditLog)),
        next(std::move(nextLink)),
        method(std::move(calledMethod)),
        input(std::move(givenInput)),
        context(std::move(callContext)),
        completion(std::move(done)) {}

  const std::shared_ptr<AuditLog> audit;
  const Orbi::Core::AsyncApiProviderPtr next;
  const Orbi::Core::MethodIdentifier method;
  Orbi::Data::Value input;
  const Orbi::Core::ExecutionContextPtr context;
  Orbi::Core::MethodCompletion completion;

  /// No thread that checks credentials ends by what becomes of a call: one that cannot go on ends
  /// with its completion.
  void Checked(bool accepted) noexcept {
    try {
      if (!accepted) return Refuse(Unauthenticated());
      ErasePassword();
      next->Invoke(method, std::move(input), context, Told());
    } catch (const std::exception& error) {
      BrokenOff(error.what());
    } catch (...) {
      BrokenOff("unknown exception");
    }
  }

  void Refuse(Orbi::Data::ErrorValue error) {
    const auto* const security = context->security.get();
    // A ticket is no name.
    const bool named = security && security->userName != security->password;
    audit->Refused(method, named ? security->userName : "-", context->peer, error.id);
    ErasePassword();
    completion(Orbi::Core::MethodResult::Error(std::move(error)));
  }

 private:
  /// The call's completion, and where it acts for somebody, a line that tells so.
  Orbi::Core::MethodCompletion Told() {
    if (!context->authentication) return std::move(completion);
    return Orbi::Core::MethodCompletion(
        [call = shared_from_this(),
         user = context->authentication->userName](Orbi::Core::MethodResult result) {
          call->audit->Done(call->method, user, call->context->peer, result);
          call->completion(std::move(result));
        });
  }

  void BrokenOff(const char* reason) const {
    Log_Level(LogLevel::kCritical, "Call of method %s.%s broken off. Error: %s\n",
              method.service.c_str(), method.operation.c_str(), reason);
  }

  void ErasePassword() const {
    if (context->security) context->security->ClearPassword();
  }
};

AsyncAuthnFilter::AsyncAuthnFilter(Orbi::Core::AsyncApiProviderPtr next,
                                   AllowedSchemes allowedSchemes,
                                   std::vector<Orbi::Authn::AuthnHandlerPtr> handlers,
                                   CheckThreads& threads, boost::asio::io_context& io)
    : next_(std::move(next)),
      allowedSchemes_(std::move(allowedSchemes)),
      handlers_(std::move(handlers)),
      threads_(threads),
      audit_(std::make_shared<AuditLog>(io)) {}

void AsyncAuthnFilter::Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
                              Orbi::Core::ExecutionContextPtr context,
                              Orbi::Core::MethodCompletion completion) {
  context->authentication.reset();
  const auto call = std::make_shared<Call>(audit_, next_, method, std::move(input),
                                           std::move(context), std::move(completion));
  const auto& allowed = allowedSchemes_(method);
  const auto isAllowed = [&allowed](std::string_view scheme) {
    return std::ranges::find(allowed, scheme) != allowed.end();
  };
  const auto* const security = call->context->security.get();
  if (security && security->schemeId && *security->schemeId != kNoAuthentication &&
      isAllowed(*security->schemeId))
    return Check(call);
  call->Checked(isAllowed(kNoAuthentication));
}

void AsyncAuthnFilter::Check(const std::shared_ptr<Call>& call) const {
  for (const auto& handler : handlers_) {
    const auto wait = handler->Takes(*call->context);
    if (!wait) continue;
    const bool taken = threads_.Run(
        *wait, call->context->peer.party,
        [call, handler] { return IsAccepted(*handler, call->method, *call->context); },
        [call](bool accepted) { call->Checked(accepted); });
    if (!taken) call->Refuse(Orbi::Core::Overloaded());
    return;
  }
  call->Checked(false);
}

}  // namespace Host::Settings::SettingsApi::Authn
