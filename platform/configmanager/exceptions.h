#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "configmanager/error_codes.h"
#include "configmanager/results.h"
#include "configstore/status_error.h"

namespace RyxConfigManager {

/// What a client should know of a failure beside its text: every violation, and what to do.
class Detailed {
 public:
  [[nodiscard]] const std::vector<ErrorInfo>& details() const { return details_; }

 protected:
  explicit Detailed(std::vector<ErrorInfo> details) : details_(std::move(details)) {}
  ~Detailed() = default;

 private:
  std::vector<ErrorInfo> details_;
};

/// A failure of the configuration manager, with its status code.
class ConfigManagerException : public RyxConfigStore::StatusError, public Detailed {
 public:
  explicit ConfigManagerException(CMErrorCode code,
                                  std::initializer_list<std::string> arguments = {},
                                  std::vector<ErrorInfo> details = {})
      : StatusError(CMErrorCodes, static_cast<std::int32_t>(code), arguments),
        Detailed(std::move(details)) {}
};

/// The caller named a key that does not exist, or a value that the key cannot have.
class InvalidArgumentException : public ConfigManagerException {
 public:
  using ConfigManagerException::ConfigManagerException;
};

/// A module could not do what was asked of one key.
class KeyChangeFailed : public RyxConfigStore::ConfigStoreException, public Detailed {
 public:
  KeyChangeFailed(RyxConfigStore::CSErrorCode code, const std::string& what,
                  std::vector<ErrorInfo> details)
      : ConfigStoreException(code, {what}), Detailed(std::move(details)) {}
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
