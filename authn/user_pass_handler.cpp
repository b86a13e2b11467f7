#include "authn/user_pass_handler.h"

#include <optional>
#include <string_view>
#include <utility>

#include "lib/ticket/ticket.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi::Authn {
namespace {

constexpr std::string_view kScheme = "com.tessel.orbi.std.security.user_pass";
constexpr const char* kPamService = "kestreld";
constexpr std::string_view kTicketService = "Lifecycle";

bool UseTicket(const std::string& text) {
  const std::optional<Ticket::Content> ticket = Ticket::Find(text);
  if (ticket && ticket->service != kTicketService) {
    Log_Level(LogLevel::kCritical, "Ticket's service name invalid, ticket: %s, service: %s\n",
              text.c_str(), ticket->service.c_str());
    return false;
  }
  // Only whoever deletes the file has the ticket: of two that found it, one comes too late.
  if (!ticket || !Ticket::Consume(text)) {
    Log_Level(LogLevel::kCritical, "Ticket authentication failed for ticket: %s\n", text.c_str());
    return false;
  }
  return true;
}

}  // namespace

UserPassHandler::UserPassHandler(PamAuthenticator pam) : pam_(std::move(pam)) {}

std::optional<Orbi::Authn::Wait> UserPassHandler::Takes(
    const Orbi::Core::ExecutionContext& context) const {
  const auto* const security = context.security.get();
  if (!security || security->schemeId != kScheme) return std::nullopt;
  return security->userName == security->password ? Orbi::Authn::Wait::kFiles
                                                  : Orbi::Authn::Wait::kSystem;
}

bool UserPassHandler::Authenticate(Orbi::Core::ExecutionContext& context) {
  const std::string& user = context.security->userName;
  const std::string& password = context.security->password;
  if (!(user == password ? UseTicket(password) : CheckAccount(user, password))) return false;
  context.authentication = {"UserPassAuthentication", user, {"en_US", "C", "Etc/UTC"}};
  return true;
}

bool UserPassHandler::CheckAccount(const std::string& user, const std::string& password) {
  if (pam_.AuthenticateUser(user, password, kPamService)) return true;
  Log_Level(LogLevel::kCritical, "UserPass authentication failed for user: %s\n", user.c_str());
  return false;
}

}  // namespace Host::Settings::SettingsApi::Authn
