#pragma once

#include <cstdint>
#include <unordered_map>

namespace RyxConfigManager {

/// The status codes that are reported.
enum class CMErrorCode : std::int32_t {
  kUnknownKey = 2021,
  kNotSingleton = 2022,
  kEmptyDocument = 2023,
  kNothingToApply = 2024,
  kImpactChanged = 2025,
  kNotInMaintenanceMode = 2026,
  kNoJson = 2080,
  kBadDescription = 2081,
  kUnknownFormat = 2082,
  kNoDependencyGraph = 2083,
  kBadValue = 2084,
};

/// All status codes of the configuration manager and their English texts; "%s" and "%d" are filled
/// in by the library that reports the code. Built before main runs and never changed: readable from
/// any thread. A code that is not in the map has no text.
extern const std::unordered_map<std::int32_t, const char*> CMErrorCodes;

}  // namespace RyxConfigManager
