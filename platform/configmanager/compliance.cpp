#include <map>
#include <string>
#include <utility>

#include "configmanager/config_manager.h"
#include "configmanager/document/key_walk.h"
#include "configmanager/module/installed_modules.h"
#include "configmanager/state/current_configuration.h"
#include "configmanager/state/plan.h"
#include "configmanager/state/setting_values.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;
using RyxConfigStore::KeyAddress;

/// Compares a configuration with a document, setting by setting.
class ComplianceCheck {
 public:
  ComplianceCheck(const CurrentConfiguration& current, ComplianceResult& result) : result_(result) {
    for (const ModuleState& module : current.modules()) {
      for (const KeyState& key : module.keys) keys_.emplace(key.key->address, Key{&module, &key});
    }
  }

  /// The settings of the document, in its order.
  void CheckDocument(const Value& merged) {
    ForEachKey(merged, {}, [&](const KeyAddress& address, const Value& value, const auto&) {
      const auto key = keys_.find(address);
      if (key == keys_.end()) return;
      CheckKey(key->second, value);
      keys_.erase(key);
    });
  }

  /// What the document does not name is to have its default.
  void CheckOthers() {
    for (const auto& [address, key] : keys_) {
      const auto plan = PlanKey(*key.state, nullptr);
      if (!plan || (key.module->failure && !key.state->isStored)) continue;
      for (const Change& change : plan->changes) {
        const bool isDeletion = change.action == ChangeAction::kDelete;
        Add(key, change.instance, change.oldValue, isDeletion ? nullptr : change.newValue, false);
      }
    }
  }

 private:
  struct Key {
    const ModuleState* module;
    const KeyState* state;
  };

  void CheckKey(const Key& key, const Value& value) {
    const KeyState& state = *key.state;
    const auto check = [&](const std::string& instance, const Value& desired) {
      const Value* effective = FindInstance(state.effective, instance);
      Add(key, instance, effective, &desired,
          IsAsDesired({effective, &desired, FindInstance(state.defaults, instance),
                       FindInstance(state.stored, instance)}));
    };
    if (state.key->singleton) {
      check("", value);
      return;
    }
    InstanceValues others = state.effective;
    for (const Value& instance : value.GetArray()) {
      const std::string id = InstanceId(*state.key, instance);
      check(id, instance);
      others.erase(id);
    }
    for (const auto& [instance, effective] : others) Add(key, instance, effective, nullptr, false);
  }

  void Add(const Key& key, const std::string& instance, const Value* effective,
           const Value* desired, bool compliant) {
    const auto& [component, group, name] = key.state->key->address;
    SettingComplianceInfo& setting = result_.settings.emplace_back();
    setting.component = component;
    setting.group = group;
    setting.key = name;
    setting.instance = instance;
    setting.desired = ToText(desired);
    if (key.module->failure) {
      setting.status = ComplianceStatus::kUnavailable;
      setting.messages.push_back(*key.module->failure);
    } else {
      setting.status = compliant ? ComplianceStatus::kCompliant : ComplianceStatus::kNonCompliant;
      setting.effective = ToText(effective);
    }
  }

  ComplianceResult& result_;
  std::map<KeyAddress, Key> keys_;  ///< not yet checked
};

/// What is known not to comply outweighs what is not known.
ComplianceStatus Overall(const ComplianceResult& result) {
  auto overall = ComplianceStatus::kCompliant;
  for (const SettingComplianceInfo& setting : result.settings) {
    if (setting.status == ComplianceStatus::kNonCompliant) return setting.status;
    if (setting.status == ComplianceStatus::kUnavailable) overall = setting.status;
  }
  return overall;
}

}  // namespace

void CheckCompliance(const Document& document, ComplianceResult& result, const TaskInput* task) {
  const auto modules = InstalledModules();
  const CurrentConfiguration current(*RyxConfigStore::Store::FromPath(), AllModules(*modules),
                                     TaskProgress(task));
  ComplianceCheck check(current, result);
  check.CheckDocument(document.merged());
  check.CheckOthers();
  result.status = Overall(result);
}

}  // namespace RyxConfigManager
