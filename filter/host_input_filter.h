#pragma once

#include <set>

#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi::Filter {

/// Refuses calls that are meant for another host than the one this daemon manages.
///
/// Looks at the field "host" in the input of the methods it was given, before the input is decoded:
/// anything but the exact string "localhost" completes the call with `invalid_argument` and the
/// message "com.tessel.ryx.host.invalid", and the service never sees it. A field that is absent or
/// unset is the service's own affair, and so are all other methods.
class HostInputFilter : public Orbi::Core::AsyncApiProvider {
 public:
  /// @param methods  those whose input has a field "host"
  HostInputFilter(Orbi::Core::AsyncApiProviderPtr next,
                  std::set<Orbi::Core::MethodIdentifier> methods);

  void Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
              Orbi::Core::ExecutionContextPtr context,
              Orbi::Core::MethodCompletion completion) override;

 private:
  const Orbi::Core::AsyncApiProviderPtr next_;
  const std::set<Orbi::Core::MethodIdentifier> methods_;
};

}  // namespace Host::Settings::SettingsApi::Filter
