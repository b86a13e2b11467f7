#pragma once

#include <memory>
#include <string>

#include "orbi/data/value.h"

/// Error values and JSON texts as tasks use them. Callable from any thread.
namespace LifeCycle {

/// Where an operation leaves its error; empty while there is none.
using TaskError = std::shared_ptr<const Orbi::Data::ErrorValue>;

/// The standard error that a failure becomes, as each caller decides.
enum class ErrorKind { kError, kInternalServerError };

/// A standard error whose one message is `id` with its default text.
[[nodiscard]] TaskError MakeError(const std::string& id, ErrorKind kind);

/// The value as clean JSON, for documents that helpers and the configuration manager read; secrets
/// are blanked.
/// @throws OrbiJsonSerializationError
[[nodiscard]] std::string ValueToJson(const Orbi::Data::Value& value);

/// The value as plain JSON, which names its types, for the results and errors of task records;
/// secrets are blanked.
/// @throws OrbiJsonSerializationError
[[nodiscard]] std::string ValueToTypedJson(const Orbi::Data::Value& value);

}  // namespace LifeCycle
