#include "configmanager/document/document_check.h"

#include <string_view>
#include <utility>

#include "configmanager/document/document_merge.h"
#include "configmanager/document/key_walk.h"
#include "configmanager/document/reference_check.h"
#include "configmanager/exceptions.h"
#include "configmanager/module/description_format.h"
#include "configmanager/module/key_check.h"
#include "configmanager/schema/value_check.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

[[noreturn]] void ThrowEmpty() {
  throw ConfigManagerException(CMErrorCode::kEmptyDocument, {},
                               {{"com.tessel.ryx.settings.document.empty", {}}});
}

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
        references_(document, modules, violations),
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
                 if (isOwn) references_.Check(value, other, *key, kind, place);
               });
  }

  const std::string& host_;
  const ModuleSet& modules_;
  Violations& violations_;
  const Value* const profile_;
  const Value* const ownSection_;
  const KeyIndex profileKeys_;
  const KeyIndex ownKeys_;
  ReferenceCheck references_;
  const Value* const sections_;
  bool foundKey_ = false;
};

}  // namespace

void CheckDocument(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                   const std::string& host, Violations& violations) {
  const Value& root = document.root();
  if (root.IsObject() && root.ObjectEmpty()) ThrowEmpty();
  CheckWellFormed(root, {}, violations);
  CheckValue(root, nullptr, DocumentFormat(), Section::kHostSpecific, {}, violations);
  const bool hasKey = DocumentCheck(document, modules, host, violations).Run();
  if (!hasKey && violations.empty()) ThrowEmpty();
}

}  // namespace RyxConfigManager
