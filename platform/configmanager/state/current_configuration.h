#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "configmanager/module/instance_values.h"
#include "configmanager/module/module.h"
#include "configmanager/module/plugin.h"
#include "configmanager/state/value_pool.h"
#include "configmanager/task_progress.h"
#include "configstore/store.h"

namespace RyxConfigManager {

/// What was desired so far, as entries of the store have it.
class StoredConfiguration {
 public:
  /// A value that is no JSON counts as an empty one, which is logged at level 2.
  explicit StoredConfiguration(std::vector<RyxConfigStore::Entry> entries);

  /// @return nothing when nothing is stored, or only what another version of the module had in
  ///         another form; an empty list when that is stored
  [[nodiscard]] std::optional<InstanceValues> Find(const KeyDefinition& key) const;
  /// The instances of the key's entries that are of another form.
  [[nodiscard]] std::vector<std::string> FindUnfit(const KeyDefinition& key) const;

 private:
  ValuePool pool_;
  std::map<RyxConfigStore::KeyAddress, InstanceValues> values_;
};

/// The entry that says of a key with instances that an empty list of them is stored.
inline constexpr char kEmptyListInstance[] = "";
inline constexpr char kEmptyListValue[] = "{}";

/// One key as it is now. The values are the configuration's.
struct KeyState {
  const KeyDefinition* key;
  InstanceValues defaults;
  bool isStored = false;
  InstanceValues stored;
  std::vector<std::string> unfit;  ///< instances that were stored in another form
  InstanceValues effective;
};

struct ModuleState {
  const Module* module;
  std::vector<KeyState> keys;  ///< in the order of the module's keys
  /// Why what is effective cannot be told; what is stored is taken for it then.
  std::optional<ErrorInfo> failure;
  PluginAnswer answer;  ///< what effective values lie in
};

/// The configuration of the host's modules as it is now: what is effective, as the modules read it
/// from the system; for keys that a module does not read, what is stored, else the default.
/// Immutable once made; readable from any thread.
class CurrentConfiguration {
 public:
  /// Reads the modules, one after another.
  /// @throws Aborted
  /// @throws RyxConfigStore::ConfigStoreException
  CurrentConfiguration(RyxConfigStore::Store& store, std::span<const Module* const> modules,
                       const TaskProgress& progress);

  [[nodiscard]] const std::vector<ModuleState>& modules() const { return modules_; }
  /// What is stored for all modules, those that were not read among them.
  [[nodiscard]] const StoredConfiguration& stored() const { return stored_; }

  /// A digest of everything in it: equal for equal configurations only.
  [[nodiscard]] std::string Digest() const;

 private:
  StoredConfiguration stored_;
  std::vector<ModuleState> modules_;
};

/// The modules of a set, in its order.
[[nodiscard]] std::vector<const Module*> AllModules(const ModuleSet& modules);

}  // namespace RyxConfigManager
