#include "configmanager/document/document_builder.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <utility>

#include "configmanager/schema/schema.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;
using Memory = rapidjson::MemoryPoolAllocator<>;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

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

void WriteSection(Writer& writer, const std::map<RyxConfigStore::KeyAddress, Value>& section) {
  writer.StartObject();
  const RyxConfigStore::KeyAddress* last = nullptr;
  for (const auto& [address, value] : section) {
    const bool sameComponent = last != nullptr && last->component == address.component;
    const bool sameGroup = sameComponent && last->group == address.group;
    if (last != nullptr && !sameGroup) writer.EndObject();
    if (last != nullptr && !sameComponent) writer.EndObject();
    if (!sameComponent) {
      writer.Key(address.component.c_str());
      writer.StartObject();
    }
    if (!sameGroup) {
      writer.Key(address.group.c_str());
      writer.StartObject();
    }
    writer.Key(address.key.c_str());
    value.Accept(writer);
    last = &address;
  }
  for (int open = last != nullptr ? 3 : 1; open > 0; --open) writer.EndObject();
}

}  // namespace

void DocumentBuilder::Add(const KeyDefinition& key, const InstanceValues& values) {
  Value common(rapidjson::kArrayType);
  Value specific(rapidjson::kArrayType);
  for (const auto& [instance, value] : values) {
    Parts parts = Split(key, *value, memory_);
    const bool hasSpecific = key.hostSpecific || !parts.specific.ObjectEmpty();
    if (!hasSpecific || !parts.common.ObjectEmpty()) common.PushBack(parts.common, memory_);
    if (hasSpecific) specific.PushBack(parts.specific, memory_);
  }
  const auto add = [&key](Section& section, Value& list) {
    section.insert_or_assign(key.address, std::move(key.singleton ? list[0] : list));
  };
  // Of a list, even an empty one has to be there; an object has a part where it has properties.
  const bool isList = !key.singleton;
  if (!common.Empty() || (isList && !key.hostSpecific)) add(profile_, common);
  if (!specific.Empty() || (isList && key.hostSpecific)) add(hostSpecific_, specific);
}

std::string DocumentBuilder::Finish(const std::string& host) const {
  rapidjson::StringBuffer text;
  Writer writer(text);
  writer.StartObject();
  writer.Key("metadata");
  writer.StartObject();
  writer.Key("schema_version");
  writer.String("1.0");
  writer.Key("reference_host");
  writer.String(host);
  writer.EndObject();
  writer.Key("profile");
  WriteSection(writer, profile_);
  writer.Key("host-specific");
  writer.StartObject();
  writer.Key(host.c_str());
  WriteSection(writer, hostSpecific_);
  writer.EndObject();
  writer.EndObject();
  return {text.GetString(), text.GetSize()};
}

}  // namespace RyxConfigManager
