#include "authn/authn_filter.h"

#include <exception>
#include <utility>

#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi::Authn {
namespace {

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
    Log_Level(LogLevel::kCritical, "Authentication failed for method: %s. Error: %s\n",
              method.ToText().c_str(), error.what());
  }
  return false;
}

}  // namespace

/// A call on its way through the filter. Its password does not outlive the check.
struct AsyncAuthnFilter::Call {
  Orbi::Core::AsyncApiProviderPtr next;
  Orbi::Core::MethodIdentifier method;
  Orbi::Data::Value input;
  Orbi::Core::ExecutionContextPtr context;
  Orbi::Core::MethodCompletion completion;

  /// No thread that checks credentials ends by what becomes of a call: one that cannot go on ends
  /// with its completion.
  void Checked(bool accepted) noexcept {
    try {
      if (!accepted) return Refuse(Unauthenticated());
      ErasePassword();
      next->Invoke(method, std::move(input), std::move(context), std::move(completion));
    } catch (const std::exception& error) {
      BrokenOff(error.what());
    } catch (...) {
      BrokenOff("unknown exception");
    }
  }

  void Refuse(Orbi::Data::ErrorValue error) {
    ErasePassword();
    completion(Orbi::Core::MethodResult::Error(std::move(error)));
  }

 private:
  void BrokenOff(const char* reason) const {
    Log_Level(LogLevel::kCritical, "Call of method %s.%s broken off. Error: %s\n",
              method.service.c_str(), method.operation.c_str(), reason);
  }

  void ErasePassword() const {
    if (context->security) context->security->ClearPassword();
  }
};

AsyncAuthnFilter::AsyncAuthnFilter(Orbi::Core::AsyncApiProviderPtr next,
                                   NeedsNoCredentials needsNoCredentials,
                                   std::vector<Orbi::Authn::AuthnHandlerPtr> handlers,
                                   CheckThreads& threads)
    : next_(std::move(next)),
      needsNoCredentials_(std::move(needsNoCredentials)),
      handlers_(std::move(handlers)),
      threads_(threads) {}

void AsyncAuthnFilter::Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
                              Orbi::Core::ExecutionContextPtr context,
                              Orbi::Core::MethodCompletion completion) {
  context->authentication.reset();
  const auto call = std::make_shared<Call>(
      Call{next_, method, std::move(input), std::move(context), std::move(completion)});
  if (needsNoCredentials_(method)) return call->Checked(true);
  Check(call);
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
