#pragma once

#include <optional>
#include <string>
#include <vector>

#include "configmanager/module/instance_values.h"
#include "configmanager/module/plugin.h"
#include "configmanager/state/current_configuration.h"
#include "configstore/store.h"

namespace RyxConfigManager {

/// What has to happen to one key for it to be as wanted.
///
/// A key that is not asked for has its default. One that is asked for as it is in force is only
/// recorded: nothing changes on the host, so that is no part of the impact. Its module gets it all
/// the same when the plan is carried out, for a crash may have kept it from finishing what it had
/// begun.
struct KeyPlan {
  const KeyState* state = nullptr;
  bool isAskedFor = false;
  InstanceValues target;        ///< the default's values when it is not asked for
  std::vector<Change> changes;  ///< to what is in force or was stored
  std::vector<Change> adopted;  ///< in force already, but not recorded
  bool isRecorded = false;      ///< the store has what is asked for, and nothing else
};

/// What has to happen to the keys of one module.
struct ModulePlan {
  const ModuleState* state = nullptr;
  std::vector<KeyPlan> keys;  ///< those for which something has to happen, as far as is known

  /// The changes for the host: additions and settings first, in the order of the keys.
  [[nodiscard]] std::vector<Change> Changes() const;
};

/// @param wanted  the value asked for: an object or a list of instances; nullptr when the key is
///                not asked for
/// @return nothing when nothing has to happen
[[nodiscard]] std::optional<KeyPlan> PlanKey(const KeyState& state, const rapidjson::Value* wanted);

/// @param merged  what a valid document asks of this host
/// @return the plans of modules that have to do something or that could not be read, in the
/// modules'
///         order
[[nodiscard]] std::vector<ModulePlan> MakePlan(const CurrentConfiguration& current,
                                               const rapidjson::Value& merged);

}  // namespace RyxConfigManager
