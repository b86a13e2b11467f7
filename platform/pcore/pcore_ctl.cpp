#include "pcore/pcore_ctl.h"

#include <sys/wait.h>

#include <utility>

#include "pcore/foreground.h"
#include "pcore/reaper.h"
#include "pcore/spawn.h"

namespace PcoreCtl::Util {

int PcoreCtl_Daemon(const std::string& command, bool changeToRoot, bool discardStreams,
                    bool honourGroup, bool logUsage, EndObserver onEnd,
                    std::vector<std::string> variables) {
  SpawnDetached(command,
                {.discardStreams = discardStreams,
                 .changeToRoot = changeToRoot,
                 .honourGroup = honourGroup,
                 .logUsage = logUsage,
                 .variables = std::move(variables)},
                std::move(onEnd));
  return 0;
}

void PcoreCtl_Watch(EndObserver onEnd) {
  Reaper::Instance().Adopt({0, {}, {}, Reaper::Kind::kDetached, std::move(onEnd)});
}

int PcoreCtl_Exec(const std::string& command, bool discardStreams, bool honourGroup, bool logUsage,
                  int standardError) {
  Child child = Spawn(command, {.standardError = standardError,
                                .discardStreams = discardStreams,
                                .honourGroup = honourGroup,
                                .logUsage = logUsage});
  const Foreground foreground(child);
  int status = 0;
  if (const int error = child.Wait(status); error != 0) {
    throw HostCtl::Lib::HostCtlException(error, "Cannot wait for " + command);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : status;
}

}  // namespace PcoreCtl::Util
