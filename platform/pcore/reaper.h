#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "pcore/end_observer.h"
#include "pcore/usage.h"
#include "tesselibs/unique_fd.h"

namespace PcoreCtl {

/// Sees processes to their end that nobody waits for: takes the exit status of children, so that
/// they do not stay as zombies, logs the usage of detached processes and tells of their end.
///
/// One thread for the whole process, started with the first of them, with all signals blocked. A
/// detached process is not ours to wait for, so its usage is looked at once a second, and what it
/// used after the last look is not in the log.
class Reaper {
 public:
  enum class Kind { kChild, kDetached };

  struct Process {
    pid_t pid;
    UniqueFd handle;             ///< pid descriptor; none once a detached process has ended, or
                                 ///< when there is only an observer
    std::optional<Usage> usage;  ///< what to log at its end
    Kind kind;
    EndObserver onEnd = {};  ///< of a detached process
  };

  /// @throws HostCtl::Lib::HostCtlException on the first call, when a descriptor cannot be had
  static Reaper& Instance();

  Reaper();
  ~Reaper();

  /// Takes over a process. Callable from any thread.
  void Adopt(Process process);

 private:
  void StartThread();
  void Run();
  void Wake() const;
  [[nodiscard]] bool TakeArrivals();
  [[nodiscard]] bool WaitForEvents() const;
  [[nodiscard]] static bool SeeToEnd(Process& process) noexcept;
  [[nodiscard]] static bool TrySeeToEnd(Process& process);

  UniqueFd wake_;  ///< eventfd: something arrived, or stop
  std::thread thread_;
  std::vector<Process> processes_;  ///< the thread's own

  std::mutex mutex_;  ///< guards what follows
  std::vector<Process> arrivals_;
  bool stopping_ = false;
};

}  // namespace PcoreCtl
