#pragma once

#include <sys/types.h>

#include <optional>

#include "pcore/usage.h"

namespace PcoreCtl {

/// Waits for the child `pid`, which is then gone, and logs its usage. Safe to call from any thread.
/// @param usage  what to log, if anything
/// @return 0 and the wait status (wait(2)), or the system's error number
int WaitForChild(pid_t pid, std::optional<Usage>& usage, int& status);

}  // namespace PcoreCtl
