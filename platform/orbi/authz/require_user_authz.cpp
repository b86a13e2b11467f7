#include "orbi/authz/require_user_authz.h"

#include <utility>

#include "orbi/l10n/catalogue.h"
#include "orbi/std/errors.h"

namespace Orbi::Authz::Filter {

RequireUserAuthz::RequireUserAuthz(Core::AsyncApiProviderPtr next, std::set<std::string> interfaces)
    : next_(std::move(next)), interfaces_(std::move(interfaces)) {}

void RequireUserAuthz::Invoke(const Core::MethodIdentifier& method, Data::Value input,
                              Core::ExecutionContextPtr context,
                              Core::MethodCompletion completion) {
  const bool knownUser = context && context->authentication;
  if (!knownUser && interfaces_.contains(method.service)) {
    completion(Core::MethodResult::Error(Com::Tessel::Orbi::Std::Errors::Unauthorized(
        {L10n::FrameworkMessage("com.tessel.orbi.std.unauthorized")})));
    return;
  }
  next_->Invoke(method, std::move(input), std::move(context), std::move(completion));
}

}  // namespace Orbi::Authz::Filter
