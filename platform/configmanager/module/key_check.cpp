#include "configmanager/module/key_check.h"

#include <cstddef>
#include <string_view>
#include <unordered_set>

#include "configmanager/schema/member_index.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Value;

/// @return the instance's id, empty when it has none that is told apart from others
std::string_view CheckId(const Value& instance, const KeyDefinition& key, const DocumentPath& path,
                         Violations& violations) {
  const Value* const id = FindMember(instance, key.idProperty);
  if (id == nullptr)
    violations.Add(path, "missing.instanceId", {key.idProperty});
  else if (id->IsString() && id->GetStringLength() == 0)
    violations.Add(DocumentPath(path, key.idProperty), "empty.property", {key.idProperty});
  return TextOf(id);
}

void CheckInstances(const Value& list, const Value* other, const KeyDefinition& key,
                    Section section, const DocumentPath& path, Violations& violations) {
  const MemberIndex others = IndexInstances(other, key.idProperty);
  std::unordered_set<std::string_view> ids;
  for (std::size_t i = 0; i < list.Size(); ++i) {
    const Value& instance = list[static_cast<rapidjson::SizeType>(i)];
    const DocumentPath place(path, i);
    std::string_view id;
    if (instance.IsObject()) id = CheckId(instance, key, place, violations);
    if (!id.empty() && !ids.insert(id).second) violations.Add(place, "duplicate.instanceId", {id});
    CheckValue(instance, id.empty() ? nullptr : Find(others, id), *key.rules, section, place,
               violations);
  }
}

}  // namespace

void CheckKey(const Value& value, const Value* other, const KeyDefinition& key, Section section,
              const DocumentPath& path, Violations& violations) {
  if (value.IsNull()) return;
  if (key.hostSpecific && section == Section::kProfile)
    violations.Add(path, "invalid.host-specific");
  if (key.singleton)
    CheckValue(value, other, *key.rules, section, path, violations);
  else if (value.IsArray())
    CheckInstances(value, other, key, section, path, violations);
  else
    violations.Add(path, "type.check.failure", {"array"});
}

}  // namespace RyxConfigManager
