#pragma once

#include <exception>
#include <memory>
#include <string>

#include "orbi/data/value.h"

namespace LifeCycle {

using ValuePtr = std::shared_ptr<const Orbi::Data::Value>;

/// A text could not be read into a value, or a value not be written as text; the log tells why.
class OrbiJsonSerializationError : public std::exception {};

/// Reads a command's JSON output (clean JSON) into a value. Callable from any thread.
/// @throws OrbiJsonSerializationError
[[nodiscard]] ValuePtr JsonToValue(const std::string& json);

/// Reads JSON that names its types (plain JSON), as a task's stored result, into a value. Callable
/// from any thread.
/// @throws OrbiJsonSerializationError
[[nodiscard]] ValuePtr TypedJsonToValue(const std::string& json);

/// Writes a value as clean JSON, for documents that helpers and the configuration manager read;
/// secrets are blanked. Callable from any thread.
/// @throws OrbiJsonSerializationError
[[nodiscard]] std::string ValueToJson(const Orbi::Data::Value& value);

/// Writes a value as plain JSON, which names its types, for the results and errors of task records;
/// secrets are blanked. Callable from any thread.
/// @throws OrbiJsonSerializationError
[[nodiscard]] std::string ValueToTypedJson(const Orbi::Data::Value& value);

}  // namespace LifeCycle
