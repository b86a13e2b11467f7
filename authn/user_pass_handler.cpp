#include "authn/user_pass_handler.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "lib/ticket/ticket.h"
#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi::Authn {
namespace {

constexpr std::string_view kScheme = "com.tessel.orbi.std.security.user_pass";
constexpr const char* kPamService = "kestreld";
constexpr std::string_view kTicketService = "Lifecycle";

/// The account that writes tickets, which is the daemon's own.
std::string OwnName() {
  passwd entry = {};
  passwd* found = nullptr;
  std::array<char, 4096> texts;
  if (getpwuid_r(geteuid(), &entry, texts.data(), texts.size(), &found) != 0 || !found)
    return std::to_string(geteuid());
  return found->pw_name;
}

/// @return on whose behalf the ticket is, as which its bearer is then known
std::optional<std::string> UseTicket(const std::string& text) {
  const std::optional<Ticket::Content> ticket = Ticket::Find(text);
  if (ticket && ticket->service != kTicketService) {
    Log_Level(LogLevel::kCritical, "Ticket's service name invalid, ticket: %s, service: %s\n",
              text.c_str(), ticket->service.c_str());
    return std::nullopt;
  }
  // Only whoever deletes the file has the ticket: of two that found it, one comes too late.
  if (!ticket || !Ticket::Consume(text)) {
    Log_Level(LogLevel::kCritical, "Ticket authentication failed for ticket: %s\n", text.c_str());
    return std::nullopt;
  }
  return ticket->user.empty() ? OwnName() : ticket->user;
}

}  // namespace

UserPassHandler::UserPassHandler(PamAuthenticator pam)
    : ownParty_("uid:" + std::to_string(geteuid())), pam_(std::move(pam)) {}

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
  const auto account =
      user == password ? CheckTicket(context.peer.party, password) : CheckAccount(user, password);
  if (!account) return false;
  context.authentication = {"UserPassAuthentication", *account, {"en_US", "C", "Etc/UTC"}};
  return true;
}

std::optional<std::string> UserPassHandler::CheckTicket(const std::string& party,
                                                        const std::string& text) {
  if (tickets_.IsShutOut(party)) return std::nullopt;
  auto account = UseTicket(text);
  if (!account && party != ownParty_) tickets_.Failed(party);
  return account;
}

std::optional<std::string> UserPassHandler::CheckAccount(const std::string& user,
                                                         const std::string& password) {
  if (pam_.AuthenticateUser(user, password, kPamService)) return user;
  Log_Level(LogLevel::kCritical, "UserPass authentication failed for user: %s\n", user.c_str());
  return std::nullopt;
}

}  // namespace Host::Settings::SettingsApi::Authn
