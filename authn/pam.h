#pragma once

#include <security/pam_appl.h>

#include <optional>
#include <string>

namespace Host::Settings::SettingsApi::Authn {

/// The functions of the PAM library, as resolved from it.
struct PamFunctions {
  decltype(&pam_start) start;
  decltype(&pam_end) end;
  decltype(&pam_authenticate) authenticate;
  decltype(&pam_setcred) setcred;
  decltype(&pam_acct_mgmt) acct_mgmt;
  decltype(&pam_strerror) strerror;
};

/// Checks system accounts through Linux-PAM, whose library is loaded when it is first needed and
/// then stays for the life of the process: PAM modules do not bear being unloaded.
///
/// A library that cannot be loaded is looked for again at the next check. Not thread-safe; a check
/// takes the calling thread for as long as the modules of the PAM service take.
class PamAuthenticator {
 public:
  /// @param library  name or path of the system's PAM library. When it cannot be loaded, the one in
  ///                 the host's library directory (preference "libdir") is: lib/NAME/NAME.
  explicit PamAuthenticator(std::string library = "libpam.so.0");

  /// Authenticates the user, checks that the account is valid and establishes its credentials.
  /// Prompts with echo are answered with the user name, prompts without with the password.
  /// @param service  name of the PAM service, a file in /etc/pam.d
  /// @return false, after logging why, when any step fails, or when a text is not well-formed UTF-8
  ///         (RFC 3629, section 4) or holds a NUL, which would end it early in PAM
  [[nodiscard]] bool AuthenticateUser(const std::string& user, const std::string& password,
                                      const std::string& service);

 private:
  const PamFunctions* Load();

  const std::string library_;
  std::optional<PamFunctions> functions_;
};

}  // namespace Host::Settings::SettingsApi::Authn
