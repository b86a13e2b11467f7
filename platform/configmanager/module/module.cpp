#include "configmanager/module/module.h"

#include <algorithm>

namespace RyxConfigManager {

ModuleSet::ModuleSet(std::vector<std::unique_ptr<const Module>> modules)
    : modules_(std::move(modules)) {}

const Module* ModuleSet::FindModule(const std::string& component) const {
  const auto found = std::find_if(modules_.begin(), modules_.end(), [&](const auto& module) {
    return module->component == component;
  });
  return found == modules_.end() ? nullptr : found->get();
}

const KeyDefinition* ModuleSet::FindKey(const RyxConfigStore::KeyAddress& address) const {
  const Module* const module = FindModule(address.component);
  if (module == nullptr) return nullptr;
  const auto key = module->keys.find({address.group, address.key});
  return key == module->keys.end() ? nullptr : &key->second;
}

}  // namespace RyxConfigManager
