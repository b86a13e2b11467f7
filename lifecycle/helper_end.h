#pragma once

#include <string>
#include <vector>

#include "lifecycle/host_claim.h"
#include "pcore/end_observer.h"

/// The end of a task whose helper is gone without having ended it: was killed as a whole, or died
/// before it could look after itself.
///
/// A helper's processes hold the access lock named after HelperLockPath of their task for as long
/// as one of them lives. Whoever gets that lock once the helper has begun knows that no process is
/// left that could end the task.
namespace LifeCycle {

/// What a helper was started with and leaves behind.
struct HelperTask {
  std::string id;
  const HostMarker& marker;            ///< of the host that it has
  std::vector<std::string> documents;  ///< the helper's own input files
};

/// The path that the lock of a task's helper is named after. There is no file.
[[nodiscard]] std::string HelperLockPath(const std::string& taskId);

/// @return whether a process of the task's helper lives, as far as can be told
[[nodiscard]] bool HelperLives(const std::string& taskId);

/// The observer to start a task's helper with. When no process of the helper is left, documents
/// named after the task go, and, if it still has the host, the other ones and its claim; a task
/// that has not ended is FAILED with "com.tessel.pelorus.lifecycle.RyxImage.UnknownError".
///
/// A helper that ends without having written to its record may have handed over to a process that
/// has yet to begin, which it has five seconds for. Records that cannot be written, or are in use,
/// are tried again for ten minutes. The observer is for one thread at a time; the functions here
/// may be called from any.
[[nodiscard]] PcoreCtl::EndObserver EndOfHelper(HelperTask task);

}  // namespace LifeCycle
