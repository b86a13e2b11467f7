#pragma once

#include <rapidjson/document.h>

#include <map>
#include <optional>
#include <string>

#include "configmanager/module/module.h"

/// The values of settings, and when two of them mean the same.
namespace RyxConfigManager {

/// A key's values: by instance id, or the one of a singleton under "". The values are another's.
using InstanceValues = std::map<std::string, const rapidjson::Value*>;

/// The id of an instance; empty when it has none.
[[nodiscard]] std::string InstanceId(const KeyDefinition& key, const rapidjson::Value& instance);

/// @param value  an object, or a list of instances for a key that is no singleton
/// @return nothing when the value is not of that form
[[nodiscard]] std::optional<InstanceValues> SplitInstances(const KeyDefinition& key,
                                                           const rapidjson::Value& value);

/// @return nullptr when the key has no such instance
[[nodiscard]] const rapidjson::Value* FindInstance(const InstanceValues& values,
                                                   const std::string& instance);

/// What one setting is compared by. Each is nullptr when there is none.
struct SettingComparison {
  const rapidjson::Value* effective = nullptr;
  const rapidjson::Value* target = nullptr;
  const rapidjson::Value* defaultValue = nullptr;
  const rapidjson::Value* stored = nullptr;  ///< what a user asked for before
};

/// Whether what is in force is what is wanted. Properties that either side leaves out have their
/// default. A property without one that the target leaves out may have any value, unless a user had
/// asked for it before.
[[nodiscard]] bool IsInForce(const SettingComparison& setting);

/// Whether two values are equal, as far as numbers can be read exactly, or both missing.
[[nodiscard]] bool AreEqual(const rapidjson::Value* a, const rapidjson::Value* b);

/// The value as JSON text; empty for nullptr.
[[nodiscard]] std::string ToText(const rapidjson::Value* value);

/// The value as JSON text that is the same for equal values: members in the order of their names.
[[nodiscard]] std::string ToCanonicalText(const rapidjson::Value& value);

}  // namespace RyxConfigManager
