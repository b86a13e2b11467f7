#pragma once

#include <string>

namespace LifeCycle {

/// @return a name to set a file aside under that is free now: its own followed by a dot and the
///         time (UTC), and by a number where that is taken
[[nodiscard]] std::string NameToSetAside(const std::string& path);

/// Gives a file such a name for good, besides its own, under which the next content takes its
/// place: at no moment is there no file of that name. Callable from any thread.
/// @return the second name
/// @throws std::system_error
[[nodiscard]] std::string SetAside(const std::string& path);

}  // namespace LifeCycle
