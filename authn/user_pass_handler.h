#pragma once

#include <optional>
#include <string>

#include "authn/pam.h"
#include "orbi/authn/authn_handler.h"

namespace Host::Settings::SettingsApi::Authn {

/// Accepts the scheme "user name and password".
///
/// Where the two are equal they are a one-time ticket of the host's lifecycle tooling, which is
/// used up; such a pair never reaches PAM, so that an account whose password is its name stays
/// shut. Any other pair is a system account, checked under the PAM service "kestreld"; only one
/// such check may be made at a time, which Takes tells by Wait::kSystem. Tickets may be checked on
/// any thread, also meanwhile.
class UserPassHandler : public Orbi::Authn::AuthnHandler {
 public:
  explicit UserPassHandler(PamAuthenticator pam = PamAuthenticator{});

  [[nodiscard]] std::optional<Orbi::Authn::Wait> Takes(
      const Orbi::Core::ExecutionContext& context) const override;
  [[nodiscard]] bool Authenticate(Orbi::Core::ExecutionContext& context) override;

 private:
  [[nodiscard]] bool CheckAccount(const std::string& user, const std::string& password);

  PamAuthenticator pam_;
};

}  // namespace Host::Settings::SettingsApi::Authn
