#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>

#include "configmanager/error_codes.h"
#include "configstore/status_error.h"

namespace RyxConfigManager {

/// A failure of the configuration manager, with its status code.
class ConfigManagerException : public RyxConfigStore::StatusError {
 public:
  explicit ConfigManagerException(CMErrorCode code,
                                  std::initializer_list<std::string> arguments = {})
      : StatusError(CMErrorCodes, static_cast<std::int32_t>(code), arguments) {}
};

/// The caller named a key that does not exist, or a value that the key cannot have.
class InvalidArgumentException : public ConfigManagerException {
 public:
  using ConfigManagerException::ConfigManagerException;
};

/// Applying would no longer do what was checked.
class InvalidImpact : public ConfigManagerException {
 public:
  InvalidImpact() : ConfigManagerException(CMErrorCode::kImpactChanged) {}
};

/// What is to be applied needs the host in maintenance mode.
class HostNotInMM : public ConfigManagerException {
 public:
  HostNotInMM() : ConfigManagerException(CMErrorCode::kNotInMaintenanceMode) {}
};

/// The task was asked to end; nothing that was begun is half-done.
class Aborted : public std::runtime_error {
 public:
  Aborted() : std::runtime_error("The operation was aborted.") {}
};

}  // namespace RyxConfigManager
