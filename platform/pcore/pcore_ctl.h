#pragma once

#include <string>
#include <vector>

#include "pcore/end_observer.h"
#include "pcore/host_ctl_exception.h"

/// Running commands; see PcoreCtl::Spawn for what a command line and its child are. Callable from
/// any thread.
namespace PcoreCtl::Util {

/// Starts the command as a detached process: in a session of its own, and not a child of this one.
/// @param changeToRoot    start it in "/" instead of this process's directory
/// @param discardStreams  connect its standard streams to /dev/null instead of inheriting them
/// @param honourGroup     put it under the limits of its resource group
/// @param logUsage        log what it used, when its resource group says "stats": as looked at once
/// a
///                        second while it runs
/// @param onEnd           told of the end of the process, if any end is to be told
/// @param variables       "NAME=value", beside this process's environment
/// @return 0; the program has begun
/// @throws HostCtl::Lib::HostCtlException when it cannot be started
int PcoreCtl_Daemon(const std::string& command, bool changeToRoot, bool discardStreams,
                    bool honourGroup, bool logUsage, EndObserver onEnd = {},
                    std::vector<std::string> variables = {});

/// Has an observer asked as at the end of a detached process: for processes that an earlier run of
/// this program started, whose end can only be looked for.
/// @throws HostCtl::Lib::HostCtlException when that cannot be set up
void PcoreCtl_Watch(EndObserver onEnd);

/// Runs the command to its end, or until EndForeground.
/// @param standardError  descriptor that becomes its standard error; inherited when negative
/// @return its exit status, or the raw wait status when a signal ended it
/// @throws HostCtl::Lib::HostCtlException when it cannot be started or waited for
int PcoreCtl_Exec(const std::string& command, bool discardStreams, bool honourGroup, bool logUsage,
                  int standardError = -1);

}  // namespace PcoreCtl::Util
