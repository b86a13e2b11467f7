#include "configmanager/state/apply_module.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "configmanager/module/plugin.h"
#include "configmanager/state/setting_values.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

using RyxConfigStore::Store;

bool IsIn(PlanPart part, const Change& change) {
  const bool isDeletion = change.action == ChangeAction::kDelete;
  return part == PlanPart::kAll || (part == PlanPart::kDeletions) == isDeletion;
}

/// Everything that the module is told: also what is only adopted, which it may have left half-done.
std::vector<Change> ChangesFor(const ModulePlan& plan, PlanPart part) {
  std::vector<Change> changes;
  for (const KeyPlan& key : plan.keys) {
    changes.insert(changes.end(), key.adopted.begin(), key.adopted.end());
  }
  const std::vector<Change> others = plan.Changes();
  changes.insert(changes.end(), others.begin(), others.end());
  std::erase_if(changes, [part](const Change& change) { return !IsIn(part, change); });
  return changes;
}

void StoreValues(Store::Transaction& transaction, const KeyPlan& plan) {
  if (!plan.isDesired) return;
  const KeyState& state = *plan.state;
  for (const auto& [instance, value] : plan.desired) {
    transaction.Set(state.key->address, instance, ToText(value));
  }
  // Only where the default is another list does an empty one have to be remembered.
  if (plan.desired.empty() && !state.defaults.empty()) {
    transaction.Set(state.key->address, kEmptyListInstance, kEmptyListValue);
  }
}

void StoreDeletions(Store::Transaction& transaction, const KeyPlan& plan) {
  const KeyState& state = *plan.state;
  const bool keepsMarker = plan.isDesired && plan.desired.empty() && !state.defaults.empty();
  const auto remove = [&](const std::string& instance) {
    if (plan.isDesired && plan.desired.contains(instance)) return;
    if (keepsMarker && instance == kEmptyListInstance) return;
    transaction.Delete(state.key->address, instance);
  };
  for (const auto& [instance, value] : state.stored) remove(instance);
  std::ranges::for_each(state.unfit, remove);
  remove(kEmptyListInstance);
}

void StorePlan(const ModulePlan& plan, PlanPart part, Store& store) {
  store.Change([&](Store::Transaction& transaction) {
    for (const KeyPlan& key : plan.keys) {
      if (part != PlanPart::kDeletions) StoreValues(transaction, key);
      if (part != PlanPart::kValues) StoreDeletions(transaction, key);
    }
  });
}

/// The changes that undo others, last first.
std::vector<Change> Reverse(const std::vector<Change>& changes) {
  std::vector<Change> reverse;
  for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
    auto action = change->newValue == nullptr ? ChangeAction::kAdd : ChangeAction::kSet;
    if (change->oldValue == nullptr) action = ChangeAction::kDelete;
    reverse.push_back({change->key, action, change->instance, change->newValue, change->oldValue});
  }
  return reverse;
}

/// The client is told that nothing was stored; so nothing should have happened, either. The
/// task cannot stop this.
void BringBack(const Module& module, const std::vector<Change>& changes) {
  Log_Level(LogLevel::kCritical,
            "%s was applied but cannot be recorded; bringing back what was in force\n",
            module.component.c_str());
  const std::vector<Change> reverse = Reverse(changes);
  const PluginAnswer answer = RunPlugin(module, PluginOperation::kApply, reverse, nullptr);
  if (answer.failure || !answer.errors.empty()) {
    Log_Level(LogLevel::kCritical, "%s could not be brought back\n", module.component.c_str());
  }
}

}  // namespace

std::vector<ErrorInfo> ApplyModule(const ModulePlan& plan, PlanPart part, Store& store,
                                   const TaskInput* task) {
  const Module& module = *plan.state->module;
  const std::vector<Change> changes = ChangesFor(plan, part);
  if (!changes.empty()) {
    const PluginAnswer answer = RunPlugin(module, PluginOperation::kApply, changes, task);
    if (answer.failure) return {*answer.failure};
    if (!answer.errors.empty()) return {answer.errors.begin(), answer.errors.end()};
  }
  try {
    StorePlan(plan, part, store);
  } catch (...) {
    if (!changes.empty()) BringBack(module, changes);
    throw;
  }
  return {};
}

}  // namespace RyxConfigManager
