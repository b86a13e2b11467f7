#pragma once

#include <cstdint>
#include <unordered_map>

namespace RyxConfigStore {

/// The status codes that are reported, by the configuration manager as well.
enum class CSErrorCode : std::int32_t {
  kOpenFailed = 1001,
  kReadFailed = 1004,
  kWriteFailed = 1005,
  kRemoveFailed = 1007,
  kDamaged = 1010,
  kBeginFailed = 1011,
  kCommitFailed = 1012,
  kUnknownFormat = 1018,
  kUnreadableValue = 1035,
  kSetFailed = 1051,
  kDeleteFailed = 1054,
  kNoJson = 1080,
};

/// All status codes of the configuration store and their English texts; "%s" and "%d" are filled in
/// by the library that reports the code. Built before main runs and never changed: readable from
/// any thread. A code that is not in the map has no text.
extern const std::unordered_map<std::int32_t, const char*> CSErrorCodes;

}  // namespace RyxConfigStore
