#pragma once

#include <rapidjson/document.h>

#include <map>
#include <string>

#include "configmanager/module/instance_values.h"
#include "configmanager/module/module.h"
#include "configstore/document.h"

namespace RyxConfigManager {

/// Makes a document that asks for given values on this host, with what is host-specific where it
/// belongs. Used by one thread at a time.
class DocumentBuilder {
 public:
  /// @param values  what they lead to has to outlive the document
  void Add(const KeyDefinition& key, const InstanceValues& values);

  [[nodiscard]] bool empty() const { return profile_.empty() && hostSpecific_.empty(); }

  /// Takes time in proportion to the document.
  /// @param host  this host's identifier
  [[nodiscard]] ConfigStoreDocument::Document Finish(const std::string& host) &&;

 private:
  using Section = std::map<RyxConfigStore::KeyAddress, rapidjson::Value>;

  [[nodiscard]] rapidjson::Value Nest(Section& section);

  rapidjson::Document root_{rapidjson::kObjectType};
  Section profile_;
  Section hostSpecific_;
};

}  // namespace RyxConfigManager
