#pragma once

#include <string>
#include <vector>

namespace LifeCycle {

/// Removes each file in the list's order, ignoring failures.
void RemoveFiles(const std::vector<std::string>& paths);

}  // namespace LifeCycle
