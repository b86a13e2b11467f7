#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "authn/guess_limiter.h"

namespace Host::Settings::SettingsApi::Authn {

/// The one thread on which passwords are checked, one at a time: the PAM library's conversation is
/// the process's, and a check takes as long as the system's authentication does.
///
/// Whatever is wrong takes the same time. A check that fails is answered, and the next one begun, a
/// fixed time after it began, and up to ten milliseconds by chance; the time grows with the longest
/// check there was, up to a bound, so that neither the answer nor the wait of others tells which
/// accounts there are. The parties that checks come from take turns, and who has failed too often
/// is refused without a check (see GuessLimiter): whoever sends wrong passwords without end delays
/// nobody but itself.
///
/// The thread is made with the first check. Submit may be called from any thread, Stop from one
/// that runs none of the callbacks.
class AuthenticationThread {
 public:
  using Check = std::function<bool()>;              ///< must not throw
  using Done = std::function<void(bool accepted)>;  ///< must not throw

  struct Limits {
    std::size_t waiting = 1024;
    std::size_t waitingOfParty = 64;
    std::chrono::milliseconds failureTime{50};  ///< from a check's begin to its refusal, at least
    std::chrono::milliseconds longestFailureTime{500};
    GuessLimiter::Limits guesses = {};
  };

  AuthenticationThread() : AuthenticationThread(Limits{}) {}
  explicit AuthenticationThread(const Limits& limits);
  AuthenticationThread(const AuthenticationThread&) = delete;
  AuthenticationThread& operator=(const AuthenticationThread&) = delete;
  ~AuthenticationThread() { Stop(); }

  /// Has a check made.
  /// @param party  see Orbi::Core::Peer
  /// @param done   told of the result, on this thread or, when the party is refused without a
  /// check,
  ///               on the caller's; destroyed without a call when the thread is stopped
  /// @return false when as many wait already as may, when the thread cannot be made, or after Stop:
  ///         nothing comes of the check then
  /// @throws std::bad_alloc, and nothing has changed
  [[nodiscard]] bool Submit(const std::string& party, Check check, Done done);

  /// Drops the checks that wait and returns when the one that runs has ended.
  void Stop();

 private:
  struct Waiting {
    Check check;
    Done done;
  };
  struct Turn {
    std::string party;
    std::deque<Waiting> waiting;
  };
  using Lock = std::unique_lock<std::mutex>;

  // With the mutex held, which Run gives up while it waits or checks.
  [[nodiscard]] bool HasThread();
  void Enqueue(const std::string& party, Waiting waiting);
  [[nodiscard]] bool IsAccepted(Lock& lock, const std::string& party, const Check& check);
  void Run();

  const Limits limits_;
  GuessLimiter guesses_;
  std::chrono::milliseconds failureTime_;  ///< of the thread alone

  std::mutex mutex_;  ///< guards what follows
  std::condition_variable changed_;
  std::list<Turn> turns_;  ///< first the party whose check is made, then those with more to come
  std::size_t waiting_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace Host::Settings::SettingsApi::Authn
