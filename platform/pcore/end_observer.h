#pragma once

#include <functional>

namespace PcoreCtl {

/// Is told that a detached process has ended, and again once a second until it returns true: that
/// it is done. Called on the reaper's thread, which other processes wait for, so it must not block,
/// and must not throw.
using EndObserver = std::function<bool()>;

}  // namespace PcoreCtl
