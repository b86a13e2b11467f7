#pragma once

#include <string>

namespace LifeCycle {

/// Gives a file a second name for good, its own followed by a dot and the time (UTC), and by a
/// number where that is taken: the next content takes its place under the first name. At no moment
/// is there no file of the first name. Callable from any thread.
/// @return the second name
/// @throws std::system_error
[[nodiscard]] std::string SetAside(const std::string& path);

}  // namespace LifeCycle
