#pragma once

#include <rapidjson/document.h>

#include <string>

/// When two values of settings mean the same. Functions without state, callable from any thread.
namespace RyxConfigManager {

/// What one setting is compared by. Each is nullptr when there is none.
struct SettingComparison {
  const rapidjson::Value* effective = nullptr;
  const rapidjson::Value* desired = nullptr;
  const rapidjson::Value* defaultValue = nullptr;
  const rapidjson::Value* stored = nullptr;  ///< what was desired before
};

/// Whether what is effective is what is desired. Properties that either side leaves out have their
/// default. A property without one that the desired value leaves out may have any value, unless the
/// stored value has it.
[[nodiscard]] bool IsAsDesired(const SettingComparison& setting);

/// Whether two values are equal, as far as numbers can be read exactly, or both missing.
[[nodiscard]] bool AreEqual(const rapidjson::Value* a, const rapidjson::Value* b);

/// The value as JSON text; empty for nullptr.
[[nodiscard]] std::string ToText(const rapidjson::Value* value);

/// The value as JSON text that is the same for equal values: members in the order of their names.
[[nodiscard]] std::string ToCanonicalText(const rapidjson::Value& value);

}  // namespace RyxConfigManager
