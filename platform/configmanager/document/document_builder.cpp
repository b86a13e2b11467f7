#include "configmanager/document/document_builder.h"

#include <utility>

#include "configmanager/module/description_format.h"
#include "configmanager/schema/schema.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;
using Memory = rapidjson::MemoryPoolAllocator<>;

void AddCopy(Value& object, const Value& name, const Value& value, Memory& memory) {
  object.AddMember(Value(name, memory), Value(value, memory), memory);
}

const Schema* RulesOf(const Schema& schema, std::string_view property) {
  const auto found = schema.properties.find(property);
  return found != schema.properties.end() ? found->second.get() : schema.additional.get();
}

/// An object's part for all hosts and its part for this host.
struct Parts {
  Value common{rapidjson::kObjectType};
  Value specific{rapidjson::kObjectType};
};

// Recurses as deep as the schema has objects within objects.
Parts Split(const Schema& schema, const Value& object, Memory& memory) {
  Parts parts;
  for (const auto& [name, value] : JsonDocument::Members(object)) {
    const Schema* rules = RulesOf(schema, JsonDocument::TextOf(&name));
    const bool isSpecific = rules != nullptr && rules->hostSpecific;
    if (rules == nullptr || isSpecific || !value.IsObject()) {
      AddCopy(isSpecific ? parts.specific : parts.common, name, value, memory);
      continue;
    }
    Parts inner = Split(*rules, value, memory);
    const bool hasSpecific = !inner.specific.ObjectEmpty();
    if (hasSpecific) parts.specific.AddMember(Value(name, memory), inner.specific, memory);
    if (!hasSpecific || !inner.common.ObjectEmpty()) {
      parts.common.AddMember(Value(name, memory), inner.common, memory);
    }
  }
  return parts;
}

/// The parts of a key's object. An instance's have its id both.
Parts Split(const KeyDefinition& key, const Value& value, Memory& memory) {
  if (key.hostSpecific) return {Value(rapidjson::kObjectType), Value(value, memory)};
  Parts parts = Split(*key.rules, value, memory);
  if (key.singleton || parts.specific.ObjectEmpty()) return parts;
  const auto id = value.FindMember(key.idProperty);
  for (Value* part : {&parts.common, &parts.specific}) {
    if (JsonDocument::FindMember(*part, key.idProperty) == nullptr) {
      AddCopy(*part, id->name, id->value, memory);
    }
  }
  return parts;
}

/// @return the value of the object's last member, which is added when it has another name: members
/// come in the order of their names
Value& LastMember(Value& object, const std::string& name, Memory& memory) {
  if (object.ObjectEmpty() || JsonDocument::TextOf(&(object.MemberEnd() - 1)->name) != name)
    object.AddMember(Value(name, memory), Value(rapidjson::kObjectType), memory);
  return (object.MemberEnd() - 1)->value;
}

}  // namespace

void DocumentBuilder::Add(const KeyDefinition& key, const InstanceValues& values) {
  Memory& memory = root_.GetAllocator();
  Value common(rapidjson::kArrayType);
  Value specific(rapidjson::kArrayType);
  for (const auto& [instance, value] : values) {
    Parts parts = Split(key, *value, memory);
    const bool hasSpecific = key.hostSpecific || !parts.specific.ObjectEmpty();
    if (!hasSpecific || !parts.common.ObjectEmpty()) common.PushBack(parts.common, memory);
    if (hasSpecific) specific.PushBack(parts.specific, memory);
  }
  const auto add = [&key](Section& section, Value& list) {
    section.insert_or_assign(key.address, std::move(key.singleton ? list[0] : list));
  };
  // Of a list, even an empty one has to be there; an object has a part where it has properties.
  const bool isList = !key.singleton;
  if (!common.Empty() || (isList && !key.hostSpecific)) add(profile_, common);
  if (!specific.Empty() || (isList && key.hostSpecific)) add(hostSpecific_, specific);
}

Value DocumentBuilder::Nest(Section& section) {
  Memory& memory = root_.GetAllocator();
  Value components(rapidjson::kObjectType);
  for (auto& [address, value] : section) {
    Value& groups = LastMember(components, address.component, memory);
    Value& keys = LastMember(groups, address.group, memory);
    keys.AddMember(Value(address.key, memory), value, memory);
  }
  return components;
}

ConfigStoreDocument::Document DocumentBuilder::Finish(const std::string& host) && {
  Memory& memory = root_.GetAllocator();
  Value metadata(rapidjson::kObjectType);
  metadata.AddMember("schema_version", rapidjson::StringRef(kSchemaVersion), memory);
  metadata.AddMember("reference_host", Value(host, memory), memory);
  Value own(rapidjson::kObjectType);
  own.AddMember(Value(host, memory), Nest(hostSpecific_), memory);
  root_.AddMember("metadata", metadata, memory);
  root_.AddMember("profile", Nest(profile_), memory);
  root_.AddMember("host-specific", own, memory);
  return ConfigStoreDocument::Document(std::move(root_));
}

}  // namespace RyxConfigManager
