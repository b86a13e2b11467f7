#include "pcore/foreground.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <set>

namespace PcoreCtl {
namespace {

struct Children {
  std::mutex mutex;  ///< guards what follows
  std::set<int> descriptors;
  bool ending = false;
};

/// Never destroyed: threads may wait for commands until the very end.
Children& All() {
  static auto* const children = new Children;
  return *children;
}

/// The C library has no name for this call yet (pidfd_send_signal(2)). A child that has ended
/// needs no signal any more.
void Terminate(int descriptor) {
  (void)syscall(SYS_pidfd_send_signal, descriptor, SIGTERM, nullptr, 0);
}

}  // namespace

Foreground::Foreground(const Child& child) : descriptor_(child.Descriptor()) {
  Children& all = All();
  const std::lock_guard lock(all.mutex);
  all.descriptors.insert(descriptor_);
  if (all.ending) Terminate(descriptor_);
}

Foreground::~Foreground() {
  Children& all = All();
  const std::lock_guard lock(all.mutex);
  all.descriptors.erase(descriptor_);
}

void EndForeground() {
  Children& all = All();
  const std::lock_guard lock(all.mutex);
  all.ending = true;
  for (const int descriptor : all.descriptors) Terminate(descriptor);
}

bool IsForegroundEnding() {
  Children& all = All();
  const std::lock_guard lock(all.mutex);
  return all.ending;
}

}  // namespace PcoreCtl
