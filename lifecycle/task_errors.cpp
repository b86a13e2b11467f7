#include "lifecycle/task_errors.h"

#include "configuration/messages/api_errors.h"
#include "orbi/std/errors.h"

namespace LifeCycle {

TaskError MakeError(const std::string& id, ErrorKind kind) {
  namespace Errors = Com::Tessel::Orbi::Std::Errors;
  const auto& type = kind == ErrorKind::kError ? Errors::Error : Errors::InternalServerError;
  return std::make_shared<const Orbi::Data::ErrorValue>(ApiError(type, id));
}

}  // namespace LifeCycle
