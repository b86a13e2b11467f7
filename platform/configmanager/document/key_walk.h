#pragma once

#include <rapidjson/document.h>

#include <map>

#include "configmanager/schema/document_path.h"
#include "configstore/store.h"
#include "tesselibs/json_document.h"

/// The keys of a section: an object of components, each an object of groups, each an object of
/// keys. What is not of that form has no keys. Functions without state, callable from any thread.
namespace RyxConfigManager {

/// Calls `visit` with the address, the value and the place of each key, in their order.
/// @param path  the section's place
template <typename Visit>
void ForEachKey(const rapidjson::Value& section, const DocumentPath& path, const Visit& visit) {
  using JsonDocument::Members;
  using JsonDocument::TextOf;
  RyxConfigStore::KeyAddress address;
  for (const auto& [component, groups] : Members(section)) {
    address.component = TextOf(&component);
    const DocumentPath componentPath(path, TextOf(&component));
    for (const auto& [group, keys] : Members(groups)) {
      address.group = TextOf(&group);
      const DocumentPath groupPath(componentPath, TextOf(&group));
      for (const auto& [key, value] : Members(keys)) {
        address.key = TextOf(&key);
        visit(address, value, DocumentPath(groupPath, TextOf(&key)));
      }
    }
  }
}

/// The values of a section by their addresses, each address's first. Refers to the values.
using KeyIndex = std::map<RyxConfigStore::KeyAddress, const rapidjson::Value*>;

/// @param section  may be nullptr
[[nodiscard]] KeyIndex IndexKeys(const rapidjson::Value* section);

/// @return nullptr when the section has no such key
[[nodiscard]] const rapidjson::Value* FindKey(const KeyIndex& index,
                                              const RyxConfigStore::KeyAddress& address);

}  // namespace RyxConfigManager
