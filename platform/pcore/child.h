#pragma once

#include <sys/types.h>

#include <optional>

#include "pcore/usage.h"
#include "tesselibs/unique_fd.h"

namespace PcoreCtl {

/// A started child process. One that is not waited for is handed to the reaper when this object
/// ends, so that no child stays behind as a zombie.
class Child {
 public:
  /// @param handle  the process's pid descriptor (pidfd_open(2))
  /// @param usage   what to log at its end, if anything
  Child(pid_t pid, UniqueFd handle, std::optional<Usage> usage)
      : pid_(pid), handle_(std::move(handle)), usage_(std::move(usage)) {}
  Child(Child&& other) noexcept;
  Child& operator=(Child&&) = delete;
  ~Child();

  /// The child's pid descriptor: readable once the child has ended (pidfd_open(2)).
  [[nodiscard]] int Descriptor() const { return handle_.Get(); }

  /// Sends a signal to everything in the child's process group. Only for a child that was started
  /// in a session of its own and that was not waited for: until then the group cannot be another's.
  void SignalGroup(int signal) const;

  /// Waits for the child's end and logs its usage. Called at most once.
  /// @return 0 and the wait status, or the system's error number
  int Wait(int& status);

 private:
  pid_t pid_;  ///< 0 when there is nothing to wait for any more
  UniqueFd handle_;
  std::optional<Usage> usage_;
};

}  // namespace PcoreCtl
