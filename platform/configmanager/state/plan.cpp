#include "configmanager/state/plan.h"

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

#include "configmanager/document/key_walk.h"
#include "configmanager/state/setting_values.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;

bool IsStoredAsDesired(const KeyPlan& plan) {
  const KeyState& state = *plan.state;
  if (!state.unfit.empty()) return false;
  if (plan.isDesired != state.isStored) {
    // An empty list is stored only where it says something.
    return plan.isDesired && plan.desired.empty() && state.defaults.empty();
  }
  const auto equal = [](const auto& a, const auto& b) {
    return a.first == b.first && AreEqual(a.second, b.second);
  };
  return !plan.isDesired || std::ranges::equal(plan.desired, state.stored, equal);
}

/// The stored value, too, has to be as desired: the effective one may have come to it by chance.
bool IsFirmlyAsDesired(const SettingComparison& s) {
  return IsAsDesired(s) &&
         (s.stored == nullptr || IsAsDesired({s.stored, s.desired, s.defaultValue, s.stored}));
}

void PlanDesired(KeyPlan& plan, const std::string& instance, const SettingComparison& s) {
  if (s.desired == nullptr) {
    plan.changes.push_back(
        {plan.state->key, ChangeAction::kDelete, instance, s.effective, nullptr});
    return;
  }
  const auto action = s.stored == nullptr ? ChangeAction::kAdd : ChangeAction::kSet;
  const Change change{plan.state->key, action, instance, s.effective, s.desired};
  if (!IsFirmlyAsDesired(s)) {
    plan.changes.push_back(change);
  } else if (!AreEqual(s.stored, s.desired)) {
    plan.adopted.push_back(change);
  }
}

void PlanDefault(KeyPlan& plan, const std::string& instance, const SettingComparison& s) {
  const bool isDefault = IsAsDesired(s);
  if (s.stored == nullptr && isDefault) return;
  auto action = s.effective == nullptr ? ChangeAction::kAdd : ChangeAction::kSet;
  if (s.stored != nullptr || s.desired == nullptr) action = ChangeAction::kDelete;
  plan.changes.push_back({plan.state->key, action, instance, s.effective, s.desired});
}

bool IsDeletion(const Change& change) { return change.action == ChangeAction::kDelete; }

}  // namespace

std::vector<Change> ModulePlan::Changes() const {
  std::vector<Change> changes;
  for (const KeyPlan& key : keys) {
    changes.insert(changes.end(), key.changes.begin(), key.changes.end());
  }
  std::stable_partition(changes.begin(), changes.end(), std::not_fn(IsDeletion));
  return changes;
}

std::optional<KeyPlan> PlanKey(const KeyState& state, const Value* desired) {
  KeyPlan plan;
  plan.state = &state;
  plan.isDesired = desired != nullptr;
  plan.desired = state.defaults;
  if (desired != nullptr)
    plan.desired = SplitInstances(*state.key, *desired).value_or(InstanceValues());
  plan.isStoredAsDesired = IsStoredAsDesired(plan);

  std::set<std::string> instances;
  for (const InstanceValues* values :
       {&std::as_const(plan.desired), &state.effective, &state.stored}) {
    for (const auto& [instance, value] : *values) instances.insert(instance);
  }
  for (const std::string& instance : instances) {
    const SettingComparison setting{
        FindInstance(state.effective, instance), FindInstance(plan.desired, instance),
        FindInstance(state.defaults, instance), FindInstance(state.stored, instance)};
    (plan.isDesired ? PlanDesired : PlanDefault)(plan, instance, setting);
  }
  if (plan.changes.empty() && plan.isStoredAsDesired) return {};
  return plan;
}

std::vector<ModulePlan> MakePlan(const CurrentConfiguration& current, const Value& merged) {
  std::vector<ModulePlan> plans;
  const KeyIndex desired = IndexKeys(&merged);
  for (const ModuleState& module : current.modules()) {
    ModulePlan plan{&module, {}};
    for (const KeyState& key : module.keys) {
      if (auto planned = PlanKey(key, FindKey(desired, key.key->address)))
        plan.keys.push_back(*std::move(planned));
    }
    if (!plan.keys.empty() || module.failure) plans.push_back(std::move(plan));
  }
  return plans;
}

}  // namespace RyxConfigManager
