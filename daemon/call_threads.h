#pragma once

#include "authn/authentication_thread.h"
#include "authn/check_threads.h"
#include "daemon/request_threads.h"

namespace Host::Settings::SettingsApi {

/// The threads that calls wait on, so that the one which carries the connections never does:
/// request threads for operations and for checks that read files, the authentication thread for
/// passwords.
class CallThreads : public Authn::CheckThreads {
 public:
  [[nodiscard]] RequestThreads& Requests() { return requests_; }

  [[nodiscard]] bool Run(Orbi::Authn::Wait wait, const std::string& party, Check check,
                         Done done) override;

  /// Has the calls that run come to their end soon, without waiting for it: no answer of theirs
  /// will be sent.
  static void HurryUp();

  /// Drops the calls that wait and returns when those that run have ended.
  void Stop();

 private:
  RequestThreads requests_;
  Authn::AuthenticationThread authentication_;
};

}  // namespace Host::Settings::SettingsApi
