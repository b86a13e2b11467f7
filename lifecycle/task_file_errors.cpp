#include "lifecycle/task_file_errors.h"

#include <cstring>

namespace LifeCycle {

TaskFileNotFoundError::TaskFileNotFoundError(const std::string& path, int errorNumber)
    : text_("TaskFile(" + path + ") not found") {
  if (errorNumber != 0) text_ += std::string(" -- ") + std::strerror(errorNumber);
}

}  // namespace LifeCycle
