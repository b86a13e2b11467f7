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

/// Overwrites the call's password when it goes out of scope.
class PasswordEraser {
 public:
  explicit PasswordEraser(Orbi::Core::ExecutionContext& context) : context_(context) {}
  PasswordEraser(const PasswordEraser&) = delete;
  PasswordEraser& operator=(const PasswordEraser&) = delete;
  ~PasswordEraser() {
    if (context_.security) context_.security->ClearPassword();
  }

 private:
  Orbi::Core::ExecutionContext& context_;
};

}  // namespace

AsyncAuthnFilter::AsyncAuthnFilter(Orbi::Core::AsyncApiProviderPtr next,
                                   NeedsNoCredentials needsNoCredentials,
                                   std::vector<Orbi::Authn::AuthnHandlerPtr> handlers)
    : next_(std::move(next)),
      needsNoCredentials_(std::move(needsNoCredentials)),
      handlers_(std::move(handlers)) {}

void AsyncAuthnFilter::Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
                              Orbi::Core::ExecutionContextPtr context,
                              Orbi::Core::MethodCompletion completion) {
  bool passes = false;
  try {
    const PasswordEraser eraser(*context);
    context->authentication.reset();
    passes = needsNoCredentials_(method) || IsAuthenticated(*context);
  } catch (const std::exception& error) {
    Log_Level(LogLevel::kCritical, "Authentication failed for method: %s. Error: %s\n",
              method.ToText().c_str(), error.what());
  }
  if (!passes) {
    completion(Orbi::Core::MethodResult::Error(Unauthenticated()));
    return;
  }
  next_->Invoke(method, std::move(input), std::move(context), std::move(completion));
}

bool AsyncAuthnFilter::IsAuthenticated(Orbi::Core::ExecutionContext& context) const {
  using Orbi::Authn::Verdict;
  for (const auto& handler : handlers_) {
    const Verdict verdict = handler->Authenticate(context);
    if (verdict != Verdict::kNotMine) return verdict == Verdict::kAccepted;
  }
  return false;
}

}  // namespace Host::Settings::SettingsApi::Authn
