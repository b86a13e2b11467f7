#pragma once

#include <set>
#include <string>

#include "orbi/core/provider.h"

namespace Orbi::Authz::Filter {

/// The link of the provider chain that lets only known users call certain interfaces. Any user who
/// was authenticated may; a call without one is answered with unauthorized. Other interfaces are
/// not touched.
class RequireUserAuthz : public Core::AsyncApiProvider {
 public:
  /// @param interfaces  identifiers of the interfaces that need a user
  RequireUserAuthz(Core::AsyncApiProviderPtr next, std::set<std::string> interfaces);

  void Invoke(const Core::MethodIdentifier& method, Data::Value input,
              Core::ExecutionContextPtr context, Core::MethodCompletion completion) override;

 private:
  const Core::AsyncApiProviderPtr next_;
  const std::set<std::string> interfaces_;
};

}  // namespace Orbi::Authz::Filter
