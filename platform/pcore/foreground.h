#pragma once

#include "pcore/child.h"

/// The commands that threads of this process wait for.
namespace PcoreCtl {

/// Counts a child among those that a thread waits for, for as long as this object lives. It must
/// end before the child does.
class Foreground {
 public:
  explicit Foreground(const Child& child);
  Foreground(const Foreground&) = delete;
  Foreground& operator=(const Foreground&) = delete;
  ~Foreground();

 private:
  const int descriptor_;
};

/// Sends SIGTERM to the commands that are being waited for, and from now on to each that is to be
/// waited for as soon as it has started: this process ends, and nobody will take what they answer.
/// Callable from any thread.
void EndForeground();

/// Whether EndForeground was called: what waits for a command in another way is to end it, too.
/// Callable from any thread.
[[nodiscard]] bool IsForegroundEnding();

}  // namespace PcoreCtl
