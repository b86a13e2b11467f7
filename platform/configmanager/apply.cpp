#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/document/violation_place.h"
#include "configmanager/exceptions.h"
#include "configmanager/state/apply_module.h"
#include "configmanager/state/assessment.h"
#include "configmanager/state/change_turn.h"
#include "configmanager/task_progress.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

/// One run of a module.
struct Step {
  const ModulePlan* plan;
  PlanPart part;
};

std::set<std::string> ComponentsReferredTo(const Module& module) {
  std::set<std::string> components;
  for (const auto& [name, key] : module.keys) {
    for (const Reference& reference : key.references) {
      components.insert(reference.target.component);
    }
  }
  components.erase(module.component);
  return components;
}

/// Carries out the modules' plans, those that others refer to first. What such a module deletes may
/// be referred to until the others are done: it waits for them.
class PlanRun {
 public:
  PlanRun(const Assessment& assessment, ApplyResult& result) : result_(result) {
    std::vector<Step> deletions;
    std::set<std::string> awaited;
    for (auto plan = assessment.plans.rbegin(); plan != assessment.plans.rend(); ++plan) {
      const std::string& component = plan->state->module->component;
      const auto& referred = references_[component] = ComponentsReferredTo(*plan->state->module);
      const bool waits = awaited.contains(component) && Deletes(*plan);
      awaited.insert(referred.begin(), referred.end());
      if (assessment.unclear.contains(component)) {
        failed_.insert(component);
        continue;
      }
      steps_.push_back({&*plan, waits ? PlanPart::kValues : PlanPart::kAll});
      if (waits) deletions.push_back({&*plan, PlanPart::kDeletions});
    }
    std::ranges::reverse(steps_);
    steps_.insert(steps_.end(), deletions.begin(), deletions.end());
  }

  void Run(RyxConfigStore::Store& store, const TaskProgress& progress) {
    for (std::size_t done = 0; const Step& step : steps_) {
      progress.Report(done++, steps_.size());
      const std::string& component = step.plan->state->module->component;
      if (failed_.contains(component)) continue;
      std::vector<ErrorInfo> errors;
      const bool isDeletion = step.part == PlanPart::kDeletions;
      if (isDeletion ? IsStillReferredTo(component) : NeedsWhatFailed(*step.plan)) {
        errors.push_back({"com.tessel.ryx.settings.apply.plugin.failed", {component}});
        errors.back().reason = isDeletion ? "what refers to it could not be applied"
                                          : "what it refers to could not be applied";
      } else {
        errors = ApplyModule(*step.plan, step.part, store, progress.task());
      }
      if (!errors.empty()) failed_.insert(component);
      result_.errors.insert(result_.errors.end(), errors.begin(), errors.end());
    }
    progress.Report(steps_.size(), steps_.size());
  }

 private:
  static bool Deletes(const ModulePlan& plan) {
    const auto changes = plan.Changes();
    return !changes.empty() && changes.back().action == ChangeAction::kDelete;
  }

  /// What could not be applied refers to what it referred to before.
  bool IsStillReferredTo(const std::string& component) const {
    const auto refers = [&](const std::string& failed) {
      return references_.at(failed).contains(component);
    };
    if (std::ranges::none_of(failed_, refers)) return false;
    Log_Level(LogLevel::kError, "%s deletes nothing: what refers to it could not be applied\n",
              component.c_str());
    return true;
  }

  /// What a key would refer to may not be there.
  bool NeedsWhatFailed(const ModulePlan& plan) const {
    const auto hasFailed = [this](const Reference& reference) {
      return failed_.contains(reference.target.component);
    };
    const auto needs = [&](const KeyPlan& key) {
      return key.isDesired && std::ranges::any_of(key.state->key->references, hasFailed);
    };
    if (std::ranges::none_of(plan.keys, needs)) return false;
    Log_Level(LogLevel::kError, "%s is not applied: what it refers to could not be applied\n",
              plan.state->module->component.c_str());
    return true;
  }

  ApplyResult& result_;
  std::vector<Step> steps_;
  std::map<std::string, std::set<std::string>> references_;  ///< between the plans' components
  std::set<std::string> failed_;                             ///< components
};

}  // namespace

ApplyResult Apply(const std::shared_ptr<CheckApplyResult>& checked, const TaskInput* task) {
  if (!checked) throw ConfigManagerException(CMErrorCode::kNothingToApply);
  const ChangeTurn turn(task);
  const TaskProgress progress(task);
  const Assessment assessment = Assess(checked->document.merged(), progress.Share(0, 40));
  const std::vector<ImpactInfo>& impacts = assessment.impact.impacts;
  if (impacts != checked->impacts || assessment.current.Digest() != checked->digest) {
    throw InvalidImpact();
  }
  const ImpactInfo maintenanceMode{ImpactKind::kMaintenanceMode, {}, {}, {}};
  if (std::ranges::find(impacts, maintenanceMode) != impacts.end()) RequireMaintenanceMode();

  ApplyResult result{assessment.impact.errors};
  PlanRun(assessment, result).Run(*RyxConfigStore::Store::FromPath(), progress.Share(40, 100));
  LocateErrors(result.errors, *assessment.modules, checked->document.root(), GetBIOSUUID());
  return result;
}

}  // namespace RyxConfigManager
