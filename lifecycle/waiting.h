#pragma once

#include <chrono>

/// The waits of operations, which a process that stops does not sit out. Callable from any thread.
namespace LifeCycle {

/// Waits on the caller's thread until the time has passed or the process stops.
/// @return false when the process stops: whoever waits gives up then, as after the last try
[[nodiscard]] bool Wait(std::chrono::milliseconds time);

/// Tells all that wait, now or later, that the process stops. Does not wait for them.
void StopWaiting();

/// What waits; tests put in its place what does not.
using Waiter = bool (*)(std::chrono::milliseconds time);
/// @return the one before
Waiter ReplaceWaiter(Waiter waiter);

}  // namespace LifeCycle
