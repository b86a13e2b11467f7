#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "configstore/error_codes.h"

namespace RyxConfigStore {

/// The English text of each of a library's status codes; "%s" and "%d" stand for arguments.
using StatusTexts = std::unordered_map<std::int32_t, const char*>;

/// A failure that has one of a library's status codes.
class StatusError : public std::runtime_error {
 public:
  /// @param arguments  fill the placeholders of the code's text, in their order
  StatusError(const StatusTexts& texts, std::int32_t code,
              std::initializer_list<std::string> arguments);

  [[nodiscard]] std::int32_t code() const { return code_; }

 private:
  std::int32_t code_;
};

/// A failure of the configuration store.
class ConfigStoreException : public StatusError {
 public:
  explicit ConfigStoreException(CSErrorCode code, std::initializer_list<std::string> arguments = {})
      : StatusError(CSErrorCodes, static_cast<std::int32_t>(code), arguments) {}
};

}  // namespace RyxConfigStore
