#include "lifecycle/task_file_errors.h"

#include <cstring>

namespace LifeCycle {

TaskFileNotFoundError::TaskFileNotFoundError(const std::string& path, int error_number)
    : text_("TaskFile(" + path + ") not found") {
  if (error_number != 0) text_ += std::string(" -- ") + std::strerror(error_number);
}

}  // namespace LifeCycle
