#include "configmanager/document/document_check.h"

#include <map>
#include <string_view>
#include <utility>

#include "configmanager/document/document_merge.h"
#include "configmanager/document/key_walk.h"
#include "configmanager/exceptions.h"
#include "configmanager/module/description_format.h"
#include "configmanager/module/key_check.h"
#include "configmanager/schema/member_index.h"
#include "configmanager/schema/value_check.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::Members;
using JsonDocument::TextOf;
using rapidjson::Value;
using RyxConfigStore::KeyAddress;

class DocumentCheck {
 public:
  DocumentCheck(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                const std::string& host, Violations& violations)
      : host_(host),
        modules_(modules),
        violations_(violations),
        profile_(FindMember(document.root(), "profile")),
        ownSection_(FindHostSection(document.root(), host)),
        profileKeys_(IndexKeys(profile_)),
        ownKeys_(IndexKeys(ownSection_)),
        mergedKeys_(IndexKeys(&document.merged())),
        sections_(FindMember(document.root(), "host-specific")) {}

  /// @return whether there is any key
  bool Run() {
    const DocumentPath root;
    if (profile_ != nullptr)
      CheckSection(*profile_, ownKeys_, Section::kProfile, DocumentPath(root, "profile"));
    if (sections_ != nullptr) CheckHostSections(DocumentPath(root, "host-specific"));
    return foundKey_;
  }

 private:
  void CheckHostSections(const DocumentPath& path) {
    const Value* ownName = nullptr;
    for (const auto& [name, section] : Members(*sections_)) {
      const DocumentPath place(path, TextOf(&name));
      CheckSection(section, profileKeys_, Section::kHostSpecific, place);
      if (&section == ownSection_) {
        ownName = &name;
      } else if (ownName != nullptr && name != *ownName && IsSectionOf(host_, name)) {
        // One that is written the same way is found with all other duplicates.
        violations_.Add(place, "duplicate.property", {TextOf(&name)});
      }
    }
  }

  void CheckSection(const Value& section, const KeyIndex& others, Section kind,
                    const DocumentPath& path) {
    const bool isOwn = kind == Section::kProfile || &section == ownSection_;
    ForEachKey(section, path,
               [&](const KeyAddress& address, const Value& value, const DocumentPath& place) {
                 foundKey_ = true;
                 const KeyDefinition* const key = modules_.FindKey(address);
                 if (key == nullptr) {
                   violations_.Add(place, "schema.not-found",
                                   {address.component, address.group, address.key});
                   return;
                 }
                 const Value* const other = FindKey(others, address);
                 CheckKey(value, other, *key, kind, place, violations_);
                 if (isOwn) CheckReferences(value, other, *key, kind, place);
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
      const auto named = mergedKeys_.find(address);
      const KeyDefinition* const key = modules_.FindKey(address);
      if (key != nullptr)
        known->second = IndexInstances(
            named != mergedKeys_.end() ? named->second : key->defaultValue, key->idProperty);
    }
    return known->second;
  }

  const std::string& host_;
  const ModuleSet& modules_;
  Violations& violations_;
  const Value* const profile_;
  const Value* const ownSection_;
  const KeyIndex profileKeys_;
  const KeyIndex ownKeys_;
  const KeyIndex mergedKeys_;
  const Value* const sections_;
  std::map<KeyAddress, MemberIndex> instances_;
  bool foundKey_ = false;
};

}  // namespace

void CheckDocument(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                   const std::string& host, Violations& violations) {
  const Value& root = document.root();
  if (root.IsObject() && root.ObjectEmpty())
    throw ConfigManagerException(CMErrorCode::kEmptyDocument);
  CheckWellFormed(root, {}, violations);
  CheckValue(root, nullptr, DocumentFormat(), Section::kHostSpecific, {}, violations);
  const bool hasKey = DocumentCheck(document, modules, host, violations).Run();
  if (!hasKey && violations.empty()) throw ConfigManagerException(CMErrorCode::kEmptyDocument);
}

}  // namespace RyxConfigManager
