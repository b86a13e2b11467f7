#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "orbi/core/provider.h"

namespace Host::Settings::SettingsApi::Authn {

/// Tells in the log who had what done: one line of level 5 for each call, with what became of it,
/// and never a value of its input:
///
///     [Audit]: user=alice peer=192.0.2.7 method=com.tessel.cis.tasks.list outcome=ok task=-
///
/// Refused calls are told likewise, but not without end: of each party the first ten of a minute,
/// and at its end how many more there were. Members may be called from any thread and never throw.
class AuditLog {
 public:
  /// @param io  sums up the refused calls of a minute on the thread that runs it; stopped before
  /// the
  ///            log goes, and outlives it
  explicit AuditLog(boost::asio::io_context& io) : timer_(io) {}
  AuditLog(const AuditLog&) = delete;
  AuditLog& operator=(const AuditLog&) = delete;
  ~AuditLog() { SumUp(); }

  /// Tells of an authenticated call.
  void Done(const Orbi::Core::MethodIdentifier& method, const std::string& user,
            const Orbi::Core::Peer& peer, const Orbi::Core::MethodResult& result) noexcept;

  /// Tells of a call that was refused for its credentials, or for want of a place to check them.
  /// @param user  as whom the client wanted to call; may be anything
  /// @param error  identifier of the error that it was answered
  void Refused(const Orbi::Core::MethodIdentifier& method, std::string_view user,
               const Orbi::Core::Peer& peer, std::string_view error) noexcept;

 private:
  struct Refusals {
    std::string address;
    std::uint64_t count = 0;
  };

  [[nodiscard]] bool IsToBeTold(const Orbi::Core::Peer& peer);
  void BeginMinute();
  void SumUp();

  boost::asio::steady_timer timer_;           ///< of the I/O context's thread alone
  std::mutex mutex_;                          ///< guards what follows
  std::map<std::string, Refusals> refusals_;  ///< of this minute, by party
};

/// A text as an audit line shows it: as it is when it is a word of printable ASCII, else, or when
/// it is empty, in quotation marks with everything else as \xNN, and cut when it is long.
[[nodiscard]] std::string AuditText(std::string_view text);

}  // namespace Host::Settings::SettingsApi::Authn
