#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "configstore/document.h"
#include "configstore/store.h"

/// What the configuration manager reports.
namespace RyxConfigManager {

/// A message: its identifier and what fills its text's placeholders, then where it belongs.
struct ErrorInfo {
  std::string id;
  std::vector<std::string> args;
  /// In the document that was handed in, as a JSON Pointer (RFC 6901); for a single key, in a
  /// document that has its value in "profile". Empty for what concerns a module as a whole.
  std::string path = {};
  RyxConfigStore::KeyAddress address = {};  ///< the key that the path leads to, if it does
  std::string instance = {};                ///< of that key; empty for a singleton
  std::string reason = {};  ///< one line about what the identifier leaves open; may be empty
};

struct ValidationResult {
  std::string pluginFailure;            ///< one line about it; empty when every module answered
  std::vector<ErrorInfo> pluginErrors;  ///< modules that failed to check the document
  std::vector<ErrorInfo> errors;
  std::size_t moreErrors = 0;  ///< of the document, which were too many to be kept

  [[nodiscard]] bool valid() const { return errors.empty() && pluginErrors.empty(); }
};

enum class ImpactKind { kAdd, kSet, kDelete, kReboot, kMaintenanceMode };

/// One thing that applying a document would do.
struct ImpactInfo {
  ImpactKind kind;
  // Empty for a reboot and for maintenance mode.
  std::string component;
  std::string group;
  std::string key;
  std::vector<std::string> instances = {};  ///< the ids of those that are meant, unless a singleton

  bool operator==(const ImpactInfo&) const = default;
};

struct ImpactResult {
  std::vector<ImpactInfo> impacts;  ///< each thing once: keys in the order of application first
  std::vector<ErrorInfo> errors;    ///< modules that could not tell theirs
};

/// What CheckApply found, and everything that Apply needs of it.
struct CheckApplyResult {
  std::string specId;  ///< fresh, a UUID
  std::vector<ImpactInfo> impacts;
  std::vector<ErrorInfo> errors;
  ConfigStoreDocument::Document document;
  std::string digest;  ///< of the configuration that the impact was computed from
};

struct ApplyResult {
  std::vector<ErrorInfo> errors;  ///< what failed, module by module; empty when all was applied
};

enum class ComplianceStatus { kCompliant, kNonCompliant, kUnavailable };

/// How one setting compares with a document.
struct SettingComplianceInfo {
  std::string component;
  std::string group;
  std::string key;
  std::string instance;  ///< empty for a singleton
  ComplianceStatus status = ComplianceStatus::kCompliant;
  std::string effective;  ///< JSON text; empty when there is none
  std::string desired;    ///< JSON text; empty when there is none
  std::vector<ErrorInfo> messages;
};

struct ComplianceResult {
  ComplianceStatus status = ComplianceStatus::kCompliant;
  std::vector<SettingComplianceInfo> settings;  ///< every setting of the document, in its order
};

}  // namespace RyxConfigManager
