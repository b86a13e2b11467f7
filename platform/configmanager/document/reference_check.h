#pragma once

#include <rapidjson/document.h>

#include <map>
#include <string>

#include "configmanager/document/key_walk.h"
#include "configmanager/module/module.h"
#include "configmanager/schema/document_path.h"
#include "configmanager/schema/member_index.h"
#include "configmanager/schema/value_check.h"
#include "configmanager/schema/violations.h"
#include "configstore/document.h"

namespace RyxConfigManager {

/// Collects references of a merged document to instances that the host is not to have. Used by one
/// thread at a time; refers to what it was made with.
class ReferenceCheck {
 public:
  ReferenceCheck(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                 Violations& violations);

  /// Checks the references in a value of the profile or of the host's own section.
  /// @param other  what the other of the two sections has for the key; nullptr when nothing
  void Check(const rapidjson::Value& value, const rapidjson::Value* other, const KeyDefinition& key,
             Section section, const DocumentPath& path);

 private:
  void CheckObject(const rapidjson::Value& object, const rapidjson::Value* other,
                   const KeyDefinition& key, Section section, const DocumentPath& path);
  void CheckId(const rapidjson::Value& id, const Reference& reference, const DocumentPath& path);
  [[nodiscard]] const MemberIndex& InstancesOf(const RyxConfigStore::KeyAddress& address);

  const ModuleSet& modules_;
  Violations& violations_;
  const KeyIndex mergedKeys_;
  std::map<RyxConfigStore::KeyAddress, MemberIndex> instances_;  ///< of keys that were referred to
};

/// Collects all references of a merged document to instances that the host is not to have, and
/// nothing else. Takes time in proportion to the document. Callable from any thread.
/// @param host  the host's identifier
void CheckReferences(const ConfigStoreDocument::Document& document, const ModuleSet& modules,
                     const std::string& host, Violations& violations);

}  // namespace RyxConfigManager
