#pragma once

#include <string>

#include "tesselibs/unique_fd.h"

namespace LifeCycle {

/// One byte of the file of locks, locked by an open file description lock (fcntl_locking(2)): what
/// excludes the daemon's processes and the helpers from each other though somebody else has an
/// access lock's name. Its folder is closed to other users.
///
/// Which byte is told by the name's digest. The lock goes with the process that holds it. Not
/// thread-safe; threads exclude each other by objects of their own.
class LockRange {
 public:
  /// Locks the byte, without waiting. Makes the file and its folder where they are missing.
  /// @param name  of an access lock, 32 hexadecimal digits at its end
  /// @return 0, EADDRINUSE when somebody else holds it, as for the name itself, or the system's
  ///         error number when there can be no file
  [[nodiscard]] int Take(const std::string& name);

  void Release() { file_ = UniqueFd(); }

  /// Whether somebody holds the byte. Takes nothing.
  [[nodiscard]] static bool IsHeld(const std::string& name);

 private:
  UniqueFd file_;
};

}  // namespace LifeCycle
