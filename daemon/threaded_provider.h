#pragma once

#include <set>
#include <string>

#include "daemon/request_threads.h"
#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi {

/// The link of the provider chain that has operations run on the request threads. Services that
/// are not among those that wait are called at once, on the caller's thread. A call that finds no
/// place to wait is answered `service_unavailable`.
class ThreadedProvider : public Orbi::Core::AsyncApiProvider {
 public:
  /// @param waiting  identifiers of the services whose operations may wait
  /// @param threads  outlives the provider
  ThreadedProvider(Orbi::Core::AsyncApiProviderPtr next, std::set<std::string> waiting,
                   RequestThreads& threads);

  void Invoke(const Orbi::Core::MethodIdentifier& method, Orbi::Data::Value input,
              Orbi::Core::ExecutionContextPtr context,
              Orbi::Core::MethodCompletion completion) override;

 private:
  const Orbi::Core::AsyncApiProviderPtr next_;
  const std::set<std::string> waiting_;
  RequestThreads& threads_;
};

}  // namespace Host::Settings::SettingsApi
