#include "configmanager/document/key_walk.h"

namespace RyxConfigManager {

using rapidjson::Value;
using RyxConfigStore::KeyAddress;

KeyIndex IndexKeys(const Value* section) {
  KeyIndex index;
  if (section == nullptr) return index;
  ForEachKey(*section, {}, [&](const KeyAddress& address, const Value& value, const auto&) {
    index.emplace(address, &value);
  });
  return index;
}

const Value* FindKey(const KeyIndex& index, const KeyAddress& address) {
  const auto found = index.find(address);
  return found == index.end() ? nullptr : found->second;
}

}  // namespace RyxConfigManager
