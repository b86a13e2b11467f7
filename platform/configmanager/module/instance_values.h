#pragma once

#include <rapidjson/document.h>

#include <map>
#include <optional>
#include <string>

#include "configmanager/module/module.h"

/// How a key's values are told apart. Functions without state, callable from any thread.
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

}  // namespace RyxConfigManager
