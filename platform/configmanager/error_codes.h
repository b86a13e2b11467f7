#pragma once

#include <cstdint>
#include <unordered_map>

namespace RyxConfigManager {

/// The status codes of the configuration manager and their English texts; "%s" and "%d" are filled
/// in by the library that reports the code. Built before main runs and never changed: readable from
/// any thread. A code that is not in the map has no text.
extern const std::unordered_map<std::int32_t, const char*> CMErrorCodes;

}  // namespace RyxConfigManager
