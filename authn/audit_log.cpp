#include "authn/audit_log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>

#include <boost/asio/post.hpp>

#include "tesselibs/log.h"

namespace Host::Settings::SettingsApi::Authn {
namespace {

constexpr std::chrono::minutes kSumUpAfter{1};
constexpr std::uint64_t kToldOfParty = 10;
/// Beyond so many parties in a minute, the others are counted as one.
constexpr std::size_t kMostParties = 1024;
constexpr const char* kOtherParties = "other addresses";
constexpr std::size_t kLongestText = 64;

bool IsPrintable(char c) { return c > ' ' && c < 0x7f && c != '"' && c != '\\'; }

std::string_view LastName(std::string_view identifier) {
  return identifier.substr(identifier.rfind('.') + 1);
}

void Tell(const Orbi::Core::MethodIdentifier& method, std::string_view user,
          const Orbi::Core::Peer& peer, std::string_view outcome, std::string_view task) {
  Log_Level(LogLevel::kNotice, "[Audit]: user=%s peer=%s method=%s outcome=%s task=%s\n",
            AuditText(user).c_str(), AuditText(peer.address).c_str(),
            AuditText(method.ToText()).c_str(), AuditText(LastName(outcome)).c_str(),
            task.empty() ? "-" : AuditText(task).c_str());
}

/// The identifier of the task that the call has started, if it has.
std::string_view StartedTask(const Orbi::Core::MethodIdentifier& method,
                             const Orbi::Core::MethodResult& result) {
  if (!result.output || !method.operation.ends_with("$task")) return {};
  const auto* const id = result.output->As<std::string>();
  return id ? std::string_view(*id) : std::string_view();
}

/// "4,211"
std::string Grouped(std::uint64_t number) {
  std::string grouped;
  const std::string digits = std::to_string(number);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
    grouped += digits[i];
  }
  return grouped;
}

/// Not to have told costs no call its answer.
template <class Step>
void Unharmed(Step step) noexcept {
  try {
    step();
  } catch (const std::exception& error) {
    Log_Level(LogLevel::kError, "[Audit]: %s\n", error.what());
  }
}

}  // namespace

std::string AuditText(std::string_view text) {
  if (!text.empty() && text.size() <= kLongestText && std::ranges::all_of(text, IsPrintable))
    return std::string(text);
  std::string quoted(1, '"');
  for (const char c : text.substr(0, kLongestText)) {
    if (c == ' ' || IsPrintable(c)) {
      quoted += c;
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
      quoted += escaped;
    }
  }
  quoted += text.size() > kLongestText ? "...\"" : "\"";
  return quoted;
}

void AuditLog::Done(const Orbi::Core::MethodIdentifier& method, const std::string& user,
                    const Orbi::Core::Peer& peer, const Orbi::Core::MethodResult& result) noexcept {
  if (!Log_IsEnabled(LogLevel::kNotice)) return;
  Unharmed([&] {
    const std::string_view outcome = result.output  ? "ok"
                                     : result.error ? std::string_view(result.error->id)
                                                    : "internal_server_error";
    Tell(method, user, peer, outcome, StartedTask(method, result));
  });
}

void AuditLog::Refused(const Orbi::Core::MethodIdentifier& method, std::string_view user,
                       const Orbi::Core::Peer& peer, std::string_view error) noexcept {
  Unharmed([&] {
    if (IsToBeTold(peer)) Tell(method, user, peer, error, {});
  });
}

bool AuditLog::IsToBeTold(const Orbi::Core::Peer& peer) {
  const std::lock_guard lock(mutex_);
  if (refusals_.empty()) boost::asio::post(timer_.get_executor(), [this] { BeginMinute(); });
  const bool isOther = refusals_.size() >= kMostParties && !refusals_.contains(peer.party);
  Refusals& refusals = refusals_[isOther ? kOtherParties : peer.party];
  if (refusals.address.empty()) refusals.address = isOther ? kOtherParties : peer.address;
  return ++refusals.count <= kToldOfParty;
}

void AuditLog::BeginMinute() {
  timer_.expires_after(kSumUpAfter);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (!cancelled) SumUp();
  });
}

void AuditLog::SumUp() {
  std::map<std::string, Refusals> refusals;
  {
    const std::lock_guard lock(mutex_);
    refusals.swap(refusals_);
  }
  Unharmed([&refusals] {
    for (const auto& [party, refused] : refusals) {
      if (refused.count <= kToldOfParty) continue;
      Log_Level(LogLevel::kNotice, "[Audit]: ... and %s more from %s in the last minute\n",
                Grouped(refused.count - kToldOfParty).c_str(), refused.address.c_str());
    }
  });
}

}  // namespace Host::Settings::SettingsApi::Authn
