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

bool IsRecorded(const KeyPlan& plan) {
  const KeyState& state = *plan.state;
  if (!state.unfit.empty()) return false;
  if (plan.isAskedFor != state.isStored) {
    // An empty list is recorded only where it says something.
    return plan.isAskedFor && plan.target.empty() && state.defaults.empty();
  }
  const auto equal = [](const auto& a, const auto& b) {
    return a.first == b.first && AreEqual(a.second, b.second);
  };
  return !plan.isAskedFor || std::ranges::equal(plan.target, state.stored, equal);
}

/// The stored value, too, has to be what is asked for: that in force may have come to it by chance.
bool IsAsAskedFor(const SettingComparison& s) {
  return IsInForce(s) &&
         (s.stored == nullptr || IsInForce({s.stored, s.target, s.defaultValue, s.stored}));
}

void PlanAskedFor(KeyPlan& plan, const std::string& instance, const SettingComparison& s) {
  if (s.target == nullptr) {
    plan.changes.push_back(
        {plan.state->key, ChangeAction::kDelete, instance, s.effective, nullptr});
    return;
  }
  const auto action = s.stored == nullptr ? ChangeAction::kAdd : ChangeAction::kSet;
  const Change change{plan.state->key, action, instance, s.effective, s.target};
  if (!IsAsAskedFor(s)) {
    plan.changes.push_back(change);
  } else if (!AreEqual(s.stored, s.target)) {
    plan.adopted.push_back(change);
  }
}

void PlanDefault(KeyPlan& plan, const std::string& instance, const SettingComparison& s) {
  const bool isDefault = IsInForce(s);
  if (s.stored == nullptr && isDefault) return;
  auto action = s.effective == nullptr ? ChangeAction::kAdd : ChangeAction::kSet;
  if (s.stored != nullptr || s.target == nullptr) action = ChangeAction::kDelete;
  plan.changes.push_back({plan.state->key, action, instance, s.effective, s.target});
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

std::optional<KeyPlan> PlanKey(const KeyState& state, const Value* wanted) {
  KeyPlan plan;
  plan.state = &state;
  plan.isAskedFor = wanted != nullptr;
  plan.target = state.defaults;
  if (wanted != nullptr)
    plan.target = SplitInstances(*state.key, *wanted).value_or(InstanceValues());
  plan.isRecorded = IsRecorded(plan);

  std::set<std::string> instances;
  for (const InstanceValues* values :
       {&std::as_const(plan.target), &state.effective, &state.stored}) {
    for (const auto& [instance, value] : *values) instances.insert(instance);
  }
  for (const std::string& instance : instances) {
    const SettingComparison setting{
        FindInstance(state.effective, instance), FindInstance(plan.target, instance),
        FindInstance(state.defaults, instance), FindInstance(state.stored, instance)};
    (plan.isAskedFor ? PlanAskedFor : PlanDefault)(plan, instance, setting);
  }
  if (plan.changes.empty() && plan.isRecorded) return {};
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
