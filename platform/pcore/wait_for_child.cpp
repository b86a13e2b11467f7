#include "pcore/wait_for_child.h"

#include <errno.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace PcoreCtl {

int WaitForChild(pid_t pid, std::optional<Usage>& usage, int& status) {
  rusage used{};
  while (wait4(pid, &status, 0, &used) < 0) {
    if (errno != EINTR) return errno;
  }
  if (usage) {
    usage->Set(used);
    usage->Log(pid);
  }
  return 0;
}

}  // namespace PcoreCtl
