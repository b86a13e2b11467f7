#include "software/command/remove_files.h"

#include <cstdio>

namespace LifeCycle {

void RemoveFiles(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) std::remove(path.c_str());
}

}  // namespace LifeCycle
