#include "daemon/call_threads.h"

#include <utility>

#include "lifecycle/waiting.h"
#include "pcore/foreground.h"

namespace Host::Settings::SettingsApi {

bool CallThreads::Run(Orbi::Authn::Wait wait, const std::string& party, Check check, Done done) {
  switch (wait) {
    case Orbi::Authn::Wait::kSystem:
      return authentication_.Submit(party, std::move(check), std::move(done));
    case Orbi::Authn::Wait::kFiles:
      return requests_.Submit(
          party, [check = std::move(check), done = std::move(done)] { done(check()); });
    case Orbi::Authn::Wait::kNone:
      break;
  }
  done(check());
  return true;
}

void CallThreads::HurryUp() {
  LifeCycle::StopWaiting();
  PcoreCtl::EndForeground();
}

void CallThreads::Stop() {
  authentication_.Stop();
  requests_.Stop();
}

}  // namespace Host::Settings::SettingsApi
