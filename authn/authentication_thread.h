#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>

namespace Host::Settings::SettingsApi::Authn {

/// The one thread on which passwords are checked, one at a time: the PAM library's conversation is
/// the process's, and a check takes as long as the system's authentication does.
///
/// Each peer address has one place at a time, and the peers take turns: whoever sends wrong
/// passwords without end delays nobody but itself. A failed check is answered a fixed time after it
/// began, or when it ends if that is later, and keeps its peer's place for so long, so that the
/// time of an answer does not tell which accounts there are.
///
/// The thread is made with the first check. Submit may be called from any thread, Stop from one
/// that runs none of the callbacks.
class AuthenticationThread {
 public:
  using Check = std::function<bool()>;  ///< must not throw
  using Done = std::function<void(bool accepted)>;

  struct Limits {
    std::size_t waiting = 1024;
    std::size_t waitingOfPeer = 64;
    std::chrono::milliseconds failureTime{50};  ///< from a check's begin to its refusal
  };

  /// @param io  refusals are told on the thread that runs it; outlives this object
  explicit AuthenticationThread(boost::asio::io_context& io) : AuthenticationThread(io, Limits{}) {}
  AuthenticationThread(boost::asio::io_context& io, const Limits& limits);
  AuthenticationThread(const AuthenticationThread&) = delete;
  AuthenticationThread& operator=(const AuthenticationThread&) = delete;
  ~AuthenticationThread() { Stop(); }

  /// Has a check made.
  /// @param done  told of the result: that it was accepted on this thread, that it was not on the
  ///              I/O context's; destroyed without a call when the thread or the context is stopped
  /// @return false when as many wait already as may, when the thread cannot be made, or after Stop:
  ///         nothing comes of the check then
  [[nodiscard]] bool Submit(const std::string& peer, Check check, Done done);

  /// Drops the checks that wait and returns when the one that runs has ended.
  void Stop();

 private:
  struct Waiting {
    Check check;
    Done done;
  };
  struct Turns;

  static void Run(const std::shared_ptr<Turns>& turns, boost::asio::io_context& io,
                  std::chrono::milliseconds failureTime);

  boost::asio::io_context& io_;
  const Limits limits_;
  const std::shared_ptr<Turns> turns_;  ///< shared with refusals that are still to be told
  std::thread thread_;                  ///< guarded by the mutex of the turns
};

}  // namespace Host::Settings::SettingsApi::Authn
