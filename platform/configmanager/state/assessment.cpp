#include "configmanager/state/assessment.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>
#include <span>
#include <utility>

#include "configmanager/exceptions.h"
#include "configmanager/module/installed_modules.h"

namespace RyxConfigManager {
namespace {

constexpr char kMaintenanceModeFile[] = "/var/run/tessel/maintenance-mode";

/// In the order of ChangeAction.
constexpr std::array kImpactKinds{ImpactKind::kAdd, ImpactKind::kSet, ImpactKind::kDelete};

/// Each kind of change that a key sees, once.
void AddKeyImpacts(const KeyPlan& plan, std::vector<ImpactInfo>& impacts) {
  for (std::size_t action = 0; action < kImpactKinds.size(); ++action) {
    const auto& [component, group, key] = plan.state->key->address;
    ImpactInfo impact{kImpactKinds.at(action), component, group, key};
    bool any = false;
    for (const Change& change : plan.changes) {
      if (static_cast<std::size_t>(change.action) != action) continue;
      any = true;
      if (!change.instance.empty()) impact.instances.push_back(change.instance);
    }
    if (any) impacts.push_back(std::move(impact));
  }
}

void Append(std::vector<ErrorInfo>& errors, const PluginAnswer& answer) {
  if (answer.failure) errors.push_back(*answer.failure);
  errors.insert(errors.end(), answer.errors.begin(), answer.errors.end());
}

void AssessPlans(Assessment& assessment, const TaskProgress& progress) {
  bool reboot = false;
  bool maintenanceMode = false;
  ImpactResult& impact = assessment.impact;
  for (std::size_t done = 0; const ModulePlan& plan : assessment.plans) {
    progress.Report(done++, assessment.plans.size());
    for (const KeyPlan& key : plan.keys) AddKeyImpacts(key, impact.impacts);
    const ModuleImpact module = AssessModule(plan, progress.task());
    reboot = reboot || module.needsReboot;
    maintenanceMode = maintenanceMode || module.needsMaintenanceMode;
    impact.errors.insert(impact.errors.end(), module.errors.begin(), module.errors.end());
    if (!module.errors.empty()) assessment.unclear.insert(plan.state->module->component);
  }
  if (reboot) impact.impacts.push_back({ImpactKind::kReboot, {}, {}, {}});
  if (maintenanceMode) impact.impacts.push_back({ImpactKind::kMaintenanceMode, {}, {}, {}});
}

}  // namespace

ModuleImpact AssessModule(const ModulePlan& plan, const TaskInput* task) {
  ModuleImpact impact;
  if (plan.state->failure) {
    impact.errors.push_back(*plan.state->failure);
    return impact;
  }
  const std::vector<Change> changes = plan.Changes();
  if (changes.empty()) return impact;
  for (const Change& change : changes) {
    impact.needsReboot = impact.needsReboot || change.key->needsReboot;
    impact.needsMaintenanceMode = impact.needsMaintenanceMode || change.key->needsMaintenanceMode;
  }
  const PluginAnswer answer =
      RunPlugin(*plan.state->module, PluginOperation::kImpact, changes, task);
  impact.needsReboot = impact.needsReboot || answer.needsReboot;
  impact.needsMaintenanceMode = impact.needsMaintenanceMode || answer.needsMaintenanceMode;
  Append(impact.errors, answer);
  return impact;
}

Assessment Assess(const rapidjson::Value& merged, const TaskProgress& progress) {
  auto modules = InstalledModules();
  CurrentConfiguration current(*RyxConfigStore::Store::FromPath(), AllModules(*modules),
                               progress.Share(0, 60));
  Assessment assessment{std::move(modules), std::move(current), {}, {}, {}};
  assessment.plans = MakePlan(assessment.current, merged);
  AssessPlans(assessment, progress.Share(60, 100));
  return assessment;
}

void RequireMaintenanceMode() {
  std::error_code error;
  if (!std::filesystem::exists(kMaintenanceModeFile, error)) throw HostNotInMM();
}

}  // namespace RyxConfigManager
