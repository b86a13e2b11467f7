#pragma once

#include <rapidjson/document.h>

#include <map>
#include <string>

#include "configmanager/module/instance_values.h"
#include "configmanager/module/module.h"

namespace RyxConfigManager {

/// Writes a document that asks for given values on this host, with what is host-specific where it
/// belongs.
class DocumentBuilder {
 public:
  /// @param values  what they lead to has to stay until the document is written
  void Add(const KeyDefinition& key, const InstanceValues& values);

  [[nodiscard]] bool empty() const { return profile_.empty() && hostSpecific_.empty(); }

  /// @param host  this host's identifier
  /// @return JSON text; takes time in proportion to its size
  [[nodiscard]] std::string Finish(const std::string& host) const;

 private:
  using Section = std::map<RyxConfigStore::KeyAddress, rapidjson::Value>;

  rapidjson::MemoryPoolAllocator<> memory_;
  Section profile_;
  Section hostSpecific_;
};

}  // namespace RyxConfigManager
