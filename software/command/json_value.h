#pragma once

#include <exception>
#include <memory>
#include <string>

#include "orbi/data/value.h"

namespace LifeCycle {

using ValuePtr = std::shared_ptr<const Orbi::Data::Value>;

/// A text could not be read into a value, or a value not be written as text; the log tells why.
class OrbiJsonSerializationError : public std::exception {
 public:
  [[nodiscard]] const char* what() const noexcept override {
    return "A value could not be read from JSON or written as JSON";
  }
};

/// Reads a command's JSON output (clean JSON) into a value. Callable from any thread.
/// @throws OrbiJsonSerializationError
ValuePtr JsonToValue(const std::string& json);

/// Reads JSON that names its types (plain JSON), as a task's stored result, into a value. Callable
/// from any thread.
/// @throws OrbiJsonSerializationError
ValuePtr TypedJsonToValue(const std::string& json);

}  // namespace LifeCycle
