#pragma once

#include <memory>
#include <string>

#include "orbi/data/value.h"

/// The errors of tasks, as the framework hands them on. Callable from any thread.
namespace LifeCycle {

/// Where an operation leaves its error; empty while there is none.
using TaskError = std::shared_ptr<const Orbi::Data::ErrorValue>;

/// The standard error that a failure becomes, as each caller decides.
enum class ErrorKind { kError, kInternalServerError };

/// A standard error whose one message is `id` with its default text.
[[nodiscard]] TaskError MakeError(const std::string& id, ErrorKind kind);

}  // namespace LifeCycle
