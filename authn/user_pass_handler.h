#pragma once

#include <optional>
#include <string>

#include "authn/guess_limiter.h"
#include "authn/pam.h"
#include "orbi/authn/authn_handler.h"

namespace Host::Settings::SettingsApi::Authn {

/// Accepts the scheme "user name and password".
///
/// Where the two are equal they are a one-time ticket of the host's lifecycle tooling, which is
/// used up; such a pair never reaches PAM, so that an account whose password is its name stays
/// shut. Any other pair is a system account, checked under the PAM service "kestreld"; only one
/// such check may be made at a time, which Takes tells by Wait::kSystem. Tickets may be checked on
/// any thread, also meanwhile. Who has brought too many wrong tickets is refused without a look at
/// the next one for a while (see GuessLimiter), but for processes of the daemon's own account,
/// which write them.
///
/// A call is its account's: of a ticket, that on whose behalf it was issued.
class UserPassHandler : public Orbi::Authn::AuthnHandler {
 public:
  explicit UserPassHandler(PamAuthenticator pam = PamAuthenticator{});

  [[nodiscard]] std::optional<Orbi::Authn::Wait> Takes(
      const Orbi::Core::ExecutionContext& context) const override;
  [[nodiscard]] bool Authenticate(Orbi::Core::ExecutionContext& context) override;

 private:
  /// @return the account that the call is made for
  [[nodiscard]] std::optional<std::string> CheckTicket(const std::string& party,
                                                       const std::string& text);
  [[nodiscard]] std::optional<std::string> CheckAccount(const std::string& user,
                                                        const std::string& password);

  const std::string ownParty_;
  PamAuthenticator pam_;
  GuessLimiter tickets_;
};

}  // namespace Host::Settings::SettingsApi::Authn
