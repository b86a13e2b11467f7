#pragma once

#include <rapidjson/document.h>

#include <map>
#include <string_view>

#include "tesselibs/json_document.h"

namespace RyxConfigManager {

/// Values by name, for finding many of them: looking each up in its object would take time that
/// grows with the square of the object's size. A tree, because clients choose the names: they could
/// choose such as fall together in a hash table. Refers to the names and values. The functions are
/// callable from any thread.
using MemberIndex = std::map<std::string_view, const rapidjson::Value*>;

/// The members of an object, each name's first. Empty for nullptr and for anything but an object.
[[nodiscard]] inline MemberIndex IndexMembers(const rapidjson::Value* value) {
  MemberIndex index;
  if (value == nullptr) return index;
  for (const auto& member : JsonDocument::Members(*value))
    index.emplace(JsonDocument::TextOf(&member.name), &member.value);
  return index;
}

/// The instances in a list by their ids, each id's first. Empty for nullptr and for anything but a
/// list.
[[nodiscard]] inline MemberIndex IndexInstances(const rapidjson::Value* list,
                                                std::string_view idProperty) {
  MemberIndex index;
  if (list == nullptr || !list->IsArray()) return index;
  for (const auto& instance : list->GetArray()) {
    const rapidjson::Value* id = JsonDocument::FindMember(instance, idProperty);
    if (id != nullptr && id->IsString()) index.emplace(JsonDocument::TextOf(id), &instance);
  }
  return index;
}

[[nodiscard]] inline const rapidjson::Value* Find(const MemberIndex& index, std::string_view name) {
  const auto found = index.find(name);
  return found == index.end() ? nullptr : found->second;
}

}  // namespace RyxConfigManager
