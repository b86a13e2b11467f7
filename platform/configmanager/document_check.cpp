#include "configmanager/document_check.h"

#include <array>
#include <map>
#include <string_view>
#include <utility>

#include "configmanager/description_format.h"
#include "configmanager/document_merge.h"
#include "configmanager/exceptions.h"
#include "configmanager/member_index.h"
#include "configmanager/value_check.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::Members;
using JsonDocument::TextOf;
using rapidjson::Value;
using RyxConfigStore::KeyAddress;

/// Calls `visit` with the address, value and place of every key of a section.
template <typename Visit>
void ForEachKey(const Value& section, const DocumentPath& path, const Visit& visit) {
  KeyAddress address;
  for (const auto& [component, groups] : Members(section)) {
    address.component = TextOf(&component);
    const DocumentPath component_path(path, TextOf(&component));
    for (const auto& [group, keys] : Members(groups)) {
      address.group = TextOf(&group);
      const DocumentPath group_path(component_path, TextOf(&group));
      for (const auto& [key, value] : Members(keys)) {
        address.key = TextOf(&key);
        visit(address, value, DocumentPath(group_path, TextOf(&key)));
      }
    }
  }
}

using KeyIndex = std::map<KeyAddress, const Value*>;

KeyIndex IndexKeys(const Value* section) {
  KeyIndex index;
  if (section != nullptr)
    ForEachKey(*section, {}, [&](const KeyAddress& address, const Value& value, const auto&) {
      index.emplace(address, &value);
    });
  return index;
}

class DocumentCheck {
 public:
  DocumentCheck(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                const std::string& host, Violations& violations)
      : host_(host),
        modules_(modules),
        violations_(violations),
        profile_(FindMember(document.root(), "profile")),
        own_section_(FindHostSection(document.root(), host)),
        profile_keys_(IndexKeys(profile_)),
        own_keys_(IndexKeys(own_section_)),
        merged_keys_(IndexKeys(&document.merged())),
        sections_(FindMember(document.root(), "host-specific")) {}

  /// @return whether there is any key
  bool Run() {
    const DocumentPath root;
    if (profile_ != nullptr)
      CheckSection(*profile_, own_keys_, Section::kProfile, DocumentPath(root, "profile"));
    if (sections_ != nullptr) CheckHostSections(DocumentPath(root, "host-specific"));
    return found_key_;
  }

 private:
  void CheckHostSections(const DocumentPath& path) {
    const Value* own_name = nullptr;
    for (const auto& [name, section] : Members(*sections_)) {
      const DocumentPath place(path, TextOf(&name));
      CheckSection(section, profile_keys_, Section::kHostSpecific, place);
      if (&section == own_section_) {
        own_name = &name;
      } else if (own_name != nullptr && name != *own_name && IsSectionOf(host_, name)) {
        // One that is written the same way is found with all other duplicates.
        violations_.Add(place, "duplicate.property", {TextOf(&name)});
      }
    }
  }

  void CheckSection(const Value& section, const KeyIndex& others, Section kind,
                    const DocumentPath& path) {
    const bool is_own = kind == Section::kProfile || &section == own_section_;
    ForEachKey(section, path,
               [&](const KeyAddress& address, const Value& value, const DocumentPath& place) {
                 found_key_ = true;
                 const KeyDefinition* const key = modules_.FindKey(address);
                 if (key == nullptr) {
                   violations_.Add(place, "schema.not-found",
                                   {address.component, address.group, address.key});
                   return;
                 }
                 const auto found = others.find(address);
                 const Value* const other = found == others.end() ? nullptr : found->second;
                 CheckKey(value, other, *key, kind, place, violations_);
                 if (is_own) CheckReferences(value, other, *key, kind, place);
               });
  }

  void CheckReferences(const Value& value, const Value* other, const KeyDefinition& key,
                       Section kind, const DocumentPath& path) {
    if (key.references.empty()) return;
    if (key.singleton) return CheckObjectReferences(value, other, key, kind, path);
    if (!value.IsArray()) return;
    const MemberIndex others = IndexInstances(other, key.idProperty);
    for (rapidjson::SizeType i = 0; i < value.Size(); ++i)
      CheckObjectReferences(value[i], Find(others, TextOf(FindMember(value[i], key.idProperty))),
                            key, kind, DocumentPath(path, i));
  }

  void CheckObjectReferences(const Value& object, const Value* other, const KeyDefinition& key,
                             Section kind, const DocumentPath& path) {
    for (const Reference& reference : key.references) {
      const Value* const value = FindMember(object, reference.property);
      // What the host's own section overrides does not hold on the host.
      const bool overridden = kind == Section::kProfile && other != nullptr &&
                              FindMember(*other, reference.property) != nullptr;
      if (value == nullptr || overridden) continue;
      const DocumentPath place(path, reference.property);
      if (value->IsString()) CheckReference(*value, reference, place);
      if (!value->IsArray()) continue;
      for (rapidjson::SizeType i = 0; i < value->Size(); ++i)
        CheckReference((*value)[i], reference, DocumentPath(place, i));
    }
  }

  void CheckReference(const Value& id, const Reference& reference, const DocumentPath& path) {
    if (!id.IsString() || InstancesOf(reference.target).contains(TextOf(&id))) return;
    const auto& [component, group, key] = reference.target;
    const std::string missing =
        component + '/' + group + '/' + key + '/' + std::string(TextOf(&id));
    violations_.Add(path, "reference.not-found", {reference.property, missing});
  }

  /// The ids that a key has on the host; its default's when the document does not name it.
  const MemberIndex& InstancesOf(const KeyAddress& address) {
    const auto [known, is_new] = instances_.try_emplace(address);
    if (is_new) {
      const auto named = merged_keys_.find(address);
      const KeyDefinition* const key = modules_.FindKey(address);
      if (key != nullptr)
        known->second = IndexInstances(
            named != merged_keys_.end() ? named->second : key->defaultValue, key->idProperty);
    }
    return known->second;
  }

  const std::string& host_;
  const ModuleSet& modules_;
  Violations& violations_;
  const Value* const profile_;
  const Value* const own_section_;
  const KeyIndex profile_keys_;
  const KeyIndex own_keys_;
  const KeyIndex merged_keys_;
  const Value* const sections_;
  std::map<KeyAddress, MemberIndex> instances_;
  bool found_key_ = false;
};

}  // namespace

void CheckDocument(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                   const std::string& host, Violations& violations) {
  constexpr std::int32_t kEmptyDocument = 2023;
  const Value& root = document.root();
  if (root.IsObject() && root.ObjectEmpty()) throw ConfigManagerException(kEmptyDocument);
  CheckWellFormed(root, {}, violations);
  CheckValue(root, nullptr, DocumentFormat(), Section::kHostSpecific, {}, violations);
  const bool has_key = DocumentCheck(document, modules, host, violations).Run();
  if (!has_key && violations.empty()) throw ConfigManagerException(kEmptyDocument);
}

}  // namespace RyxConfigManager
