#include "configmanager/document/reference_check.h"

#include "configmanager/document/document_merge.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {

using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Value;
using RyxConfigStore::KeyAddress;

ReferenceCheck::ReferenceCheck(const ConfigStoreDocument::Document& document,
                               const ModuleSet& modules, Violations& violations)
    : modules_(modules), violations_(violations), mergedKeys_(IndexKeys(&document.merged())) {}

void ReferenceCheck::Check(const Value& value, const Value* other, const KeyDefinition& key,
                           Section section, const DocumentPath& path) {
  if (key.references.empty()) return;
  if (key.singleton) return CheckObject(value, other, key, section, path);
  if (!value.IsArray()) return;
  const MemberIndex others = IndexInstances(other, key.idProperty);
  for (rapidjson::SizeType i = 0; i < value.Size(); ++i) {
    const std::string_view id = TextOf(FindMember(value[i], key.idProperty));
    CheckObject(value[i], Find(others, id), key, section, DocumentPath(path, i));
  }
}

void ReferenceCheck::CheckObject(const Value& object, const Value* other, const KeyDefinition& key,
                                 Section section, const DocumentPath& path) {
  for (const Reference& reference : key.references) {
    const Value* const value = FindMember(object, reference.property);
    // What the host's own section overrides does not hold on the host.
    const bool overridden = section == Section::kProfile && other != nullptr &&
                            FindMember(*other, reference.property) != nullptr;
    if (value == nullptr || overridden) continue;
    const DocumentPath place(path, reference.property);
    if (value->IsString()) CheckId(*value, reference, place);
    if (!value->IsArray()) continue;
    for (rapidjson::SizeType i = 0; i < value->Size(); ++i)
      CheckId((*value)[i], reference, DocumentPath(place, i));
  }
}

void ReferenceCheck::CheckId(const Value& id, const Reference& reference,
                             const DocumentPath& path) {
  if (!id.IsString() || InstancesOf(reference.target).contains(TextOf(&id))) return;
  const auto& [component, group, key] = reference.target;
  const std::string missing = component + '/' + group + '/' + key + '/' + std::string(TextOf(&id));
  violations_.Add(path, "reference.not-found", {reference.property, missing});
}

/// The ids that a key has on the host; its default's when the document does not name it.
const MemberIndex& ReferenceCheck::InstancesOf(const KeyAddress& address) {
  const auto [known, isNew] = instances_.try_emplace(address);
  const KeyDefinition* const key = isNew ? modules_.FindKey(address) : nullptr;
  if (key != nullptr) {
    const Value* const named = FindKey(mergedKeys_, address);
    known->second = IndexInstances(named != nullptr ? named : key->defaultValue, key->idProperty);
  }
  return known->second;
}

void CheckReferences(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                     const std::string& host, Violations& violations) {
  ReferenceCheck check(document, modules, violations);
  const auto checkSection = [&](const Value* section, const KeyIndex& others, Section kind,
                                const DocumentPath& path) {
    if (section == nullptr) return;
    ForEachKey(*section, path,
               [&](const KeyAddress& address, const Value& value, const DocumentPath& place) {
                 if (const KeyDefinition* const key = modules.FindKey(address))
                   check.Check(value, FindKey(others, address), *key, kind, place);
               });
  };
  const Value* const profile = FindMember(document.root(), "profile");
  const Value* const own = FindHostSection(document.root(), host);
  const DocumentPath root;
  checkSection(profile, IndexKeys(own), Section::kProfile, DocumentPath(root, "profile"));
  checkSection(own, IndexKeys(profile), Section::kHostSpecific,
               DocumentPath(DocumentPath(root, "host-specific"), host));
}

}  // namespace RyxConfigManager
