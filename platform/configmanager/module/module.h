#pragma once

#include <rapidjson/document.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configstore/store.h"

/// Configuration modules, each of which teaches the manager the keys of one component and brings
/// the programs that check, read and apply them.
namespace RyxConfigManager {

struct Schema;

/// A property whose value has to be the id of an instance of another key.
struct Reference {
  std::string property;
  RyxConfigStore::KeyAddress target;
};

/// What a module tells of one key. Pointers lead into the module's own description. Names consist
/// of letters, digits, ".", "_" and "-".
struct KeyDefinition {
  RyxConfigStore::KeyAddress address;
  bool singleton = true;
  std::string idProperty;                    ///< tells the instances apart; empty for a singleton
  bool hostSpecific = false;                 ///< only in a document's "host-specific" part
  const rapidjson::Value* schema = nullptr;  ///< of the object, or of one instance
  std::shared_ptr<const Schema> rules;       ///< `schema`, ready to check values (schema.h)
  const rapidjson::Value* defaultValue = nullptr;  ///< nullptr when there is none
  std::vector<Reference> references;
  bool needsMaintenanceMode = false;
  bool needsReboot = false;
};

/// The programs of a module: absolute paths, empty where it has none.
struct Executables {
  std::filesystem::path validate;
  std::filesystem::path impact;
  std::filesystem::path read;
  std::filesystem::path apply;
};

struct Module {
  std::string component;
  std::string version;
  std::filesystem::path folder;
  Executables executables;
  std::chrono::milliseconds timeout = std::chrono::seconds(60);       ///< of each of its programs
  std::map<std::pair<std::string, std::string>, KeyDefinition> keys;  ///< by group and key
  std::string text;                 ///< module.json; the description leads into it
  rapidjson::Document description;  ///< module.json
};

/// The modules of the host, those that others refer to first. Immutable: readable from any thread,
/// and handed on by shared pointers, so that an operation keeps those that it began with.
class ModuleSet {
 public:
  explicit ModuleSet(std::vector<std::unique_ptr<const Module>> modules);

  [[nodiscard]] const std::vector<std::unique_ptr<const Module>>& modules() const {
    return modules_;
  }
  /// @return nullptr when no module has such a component or key
  [[nodiscard]] const Module* FindModule(const std::string& component) const;
  [[nodiscard]] const KeyDefinition* FindKey(const RyxConfigStore::KeyAddress& address) const;

 private:
  std::vector<std::unique_ptr<const Module>> modules_;
};

}  // namespace RyxConfigManager
