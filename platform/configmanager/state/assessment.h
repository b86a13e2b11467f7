#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "configmanager/results.h"
#include "configmanager/state/current_configuration.h"
#include "configmanager/state/plan.h"
#include "configmanager/task_progress.h"

/// Judging what is to come. Callable from any thread.
namespace RyxConfigManager {

/// What the modules' programs make of changes to come.
struct ModuleImpact {
  bool needsReboot = false;
  bool needsMaintenanceMode = false;
  std::vector<ErrorInfo> errors;  ///< why it cannot be told
};

/// The impact of one module's plan.
/// @throws Aborted
[[nodiscard]] ModuleImpact AssessModule(const ModulePlan& plan, const TaskInput* task);

/// What a document asks for, against what is.
struct Assessment {
  std::shared_ptr<const ModuleSet> modules;
  CurrentConfiguration current;
  std::vector<ModulePlan> plans;  ///< lead into `current`
  ImpactResult impact;
  std::set<std::string> unclear;  ///< components whose impact cannot be told
};

/// Reads what is and compares it with what a valid, merged document asks for.
/// @throws Aborted
/// @throws RyxConfigStore::ConfigStoreException
[[nodiscard]] Assessment Assess(const rapidjson::Value& merged, const TaskProgress& progress);

/// @throws HostNotInMM  the host is not in maintenance mode
void RequireMaintenanceMode();

}  // namespace RyxConfigManager
