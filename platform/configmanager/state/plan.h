#pragma once

#include <optional>
#include <string>
#include <vector>

#include "configmanager/module/instance_values.h"
#include "configmanager/module/plugin.h"
#include "configmanager/state/current_configuration.h"
#include "configstore/store.h"

/// Planning. Functions without state, callable from any thread; a plan leads into the configuration
/// that it was made from.
namespace RyxConfigManager {

/// What has to happen to one key for it to be as desired.
///
/// A key of which nothing is desired has its default. One that is effective as desired is only
/// stored: nothing changes on the host, so that is no part of the impact. Its module gets it all
/// the same when the plan is carried out, for a crash may have kept it from finishing what it had
/// begun.
struct KeyPlan {
  const KeyState* state = nullptr;
  bool isDesired = false;          ///< a client asks for it
  InstanceValues desired;          ///< the default's values when nothing is desired
  std::vector<Change> changes;     ///< to what is effective or was stored
  std::vector<Change> adopted;     ///< effective already, but not stored
  bool isStoredAsDesired = false;  ///< the store has what is desired, and nothing else
};

/// What has to happen to the keys of one module.
struct ModulePlan {
  const ModuleState* state = nullptr;
  std::vector<KeyPlan> keys;  ///< those for which something has to happen, as far as is known

  /// The changes for the host: additions and settings first, in the order of the keys.
  [[nodiscard]] std::vector<Change> Changes() const;
};

/// @param desired  an object or a list of instances; nullptr when nothing is desired of the key
/// @return nothing when nothing has to happen
[[nodiscard]] std::optional<KeyPlan> PlanKey(const KeyState& state,
                                             const rapidjson::Value* desired);

/// @param merged  what a valid document desires of this host
/// @return the plans of modules that have to do something or that could not be read, in the order
/// of
///         the modules
[[nodiscard]] std::vector<ModulePlan> MakePlan(const CurrentConfiguration& current,
                                               const rapidjson::Value& merged);

}  // namespace RyxConfigManager
