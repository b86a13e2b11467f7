#pragma once

#include <exception>
#include <optional>
#include <string>

#include "lifecycle/lock_range.h"
#include "lifecycle/turn.h"

namespace LifeCycle {

/// A failure to acquire or to release an access lock.
class AccessLockError : public std::exception {
 public:
  explicit AccessLockError(int errorNumber);

  /// The system's error number: EADDRINUSE when the lock is held elsewhere.
  [[nodiscard]] int errorNumber() const noexcept { return errorNumber_; }
  /// The system's text for the error number.
  [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

 private:
  int errorNumber_;
  std::string text_;
};

/// Cross-process mutual exclusion named after a file path, used as a scope guard.
///
/// The lock is a Unix-domain socket bound in the abstract namespace (unix(7)) to "/com/tessel/" and
/// the MD5 digest (RFC 1321) of the absolute path in 32 lower-case hexadecimal digits: whoever has
/// the name bound holds the lock. Closing the socket releases it, so a process that dies never
/// leaves a stale lock behind. The file itself is neither needed nor touched, and its path is taken
/// as it is written: "a/../b" and "b" are two locks.
///
/// Any account of the host can bind names. One that a process of another user has bound is no lock,
/// as the log is told once for each acquisition; the range of the file of locks (lock_range.h) that
/// is taken first then excludes, as no other user can enter its folder.
///
/// Excludes threads of one process as well as other processes; not re-entrant. May be constructed
/// on any thread, and waits there; a process that stops does not wait, and does not get the lock.
class AccessLock {
 public:
  /// What comes before the first attempt that counts.
  enum class Before {
    kNothing,
    /// For a lock that is held for milliseconds, many times a second: threads of this process take
    /// turns, and with retries it is tried for every 5 ms for 200 ms, untold. What a neighbour
    /// found in vain meanwhile is not tried for again.
    kShortWait,
  };

  /// Acquires the lock.
  ///
  /// With `retries` of 0 there is one attempt, and a lock held elsewhere is an error. With N of 1
  /// or more there are N attempts, each followed by one second of sleep, and after the last the
  /// constructor returns *without holding the lock*: a holder that does not let go must not bring
  /// every other user to a halt. Whoever writes under a lock taken so writes in a manner that
  /// leaves the file whole even when two do it at once.
  ///
  /// @param path     the file the lock is named after; a relative path is taken from the current
  ///                 directory
  /// @param retries  attempts, as told above
  /// @throws AccessLockError when the lock cannot be had
  AccessLock(const std::string& path, int retries, Before before = Before::kNothing);

  /// Releases the lock.
  /// @throws AccessLockError when the socket cannot be closed, unless another exception is on its
  ///         way already
  ~AccessLock() noexcept(false);  // NOLINT(bugprone-exception-escape): told to the lock's user

  /// Whether somebody holds the lock of a path. Logs nothing, as nobody waits for it. To tell, it
  /// takes the lock for a moment, in which others find it held.
  /// @return true also when that cannot be told
  [[nodiscard]] static bool IsHeld(const std::string& path);

  AccessLock(const AccessLock&) = delete;
  AccessLock& operator=(const AccessLock&) = delete;

 private:
  [[nodiscard]] bool WaitShortly(bool looks);
  void Bind();
  [[nodiscard]] int TryToBind();
  void Close();

  std::optional<Turn> turn_;  ///< the last to go
  LockRange range_;           ///< taken before the name, released after it
  int socket_ = -1;
  std::string name_;
};

}  // namespace LifeCycle
