#include "configmanager/module/instance_values.h"

#include <utility>

#include "tesselibs/json_document.h"

namespace RyxConfigManager {

using rapidjson::Value;

std::string InstanceId(const KeyDefinition& key, const Value& instance) {
  return std::string(JsonDocument::TextOf(JsonDocument::FindMember(instance, key.idProperty)));
}

std::optional<InstanceValues> SplitInstances(const KeyDefinition& key, const Value& value) {
  if (key.singleton) {
    if (!value.IsObject()) return {};
    return InstanceValues{{"", &value}};
  }
  if (!value.IsArray()) return {};
  InstanceValues instances;
  for (const Value& instance : value.GetArray()) {
    std::string id = InstanceId(key, instance);
    if (id.empty() || !instances.emplace(std::move(id), &instance).second) return {};
  }
  return instances;
}

const Value* FindInstance(const InstanceValues& values, const std::string& instance) {
  const auto found = values.find(instance);
  return found == values.end() ? nullptr : found->second;
}

}  // namespace RyxConfigManager
