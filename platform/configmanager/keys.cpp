#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/document/document_builder.h"
#include "configmanager/document/document_merge.h"
#include "configmanager/document/reference_check.h"
#include "configmanager/exceptions.h"
#include "configmanager/module/installed_modules.h"
#include "configmanager/module/key_check.h"
#include "configmanager/schema/value_check.h"
#include "configmanager/schema/violations.h"
#include "configmanager/state/apply_module.h"
#include "configmanager/state/assessment.h"
#include "configmanager/state/change_turn.h"
#include "configmanager/state/current_configuration.h"
#include "configmanager/state/plan.h"
#include "configmanager/state/setting_values.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;
using RyxConfigStore::ConfigStoreException;
using RyxConfigStore::CSErrorCode;
using RyxConfigStore::KeyAddress;
using RyxConfigStore::Store;

constexpr char kInstances[] = "instances";

/// A key of a module, both of them held.
struct FoundKey {
  std::shared_ptr<const ModuleSet> modules;
  const Module* module;
  const KeyDefinition* key;

  [[nodiscard]] std::string Name() const {
    return key->address.component + "/" + key->address.group + "/" + key->address.key;
  }
};

FoundKey FindKey(const std::string& component, const std::string& group, const std::string& key) {
  auto modules = InstalledModules();
  const Module* module = modules->FindModule(component);
  const KeyDefinition* definition = modules->FindKey({component, group, key});
  if (definition == nullptr) {
    throw InvalidArgumentException(CMErrorCode::kUnknownKey, {component + "/" + group + "/" + key});
  }
  return {std::move(modules), module, definition};
}

std::string Describe(const ErrorInfo& error) {
  std::string text = error.id;
  for (const std::string& argument : error.args) text += " '" + argument + "'";
  return text;
}

/// Changes one key.
class KeyChange {
 public:
  /// @param failure  the store's status for a change that fails
  KeyChange(FoundKey found, CSErrorCode failure, const TaskInput* task)
      : found_(std::move(found)),
        failure_(failure),
        turn_(task),
        progress_(task),
        store_(Store::FromPath()),
        current_(*store_, std::array{found_.module}, progress_.Share(0, 40)) {}

  /// @param desired  nullptr when nothing is to be desired of the key any more
  void Make(const Value* desired) {
    const ModuleState& state = current_.modules().front();
    if (state.failure) Fail(*state.failure);
    Validate(desired);
    const auto isKey = [this](const KeyState& key) { return key.key == found_.key; };
    auto plan = PlanKey(*std::ranges::find_if(state.keys, isKey), desired);
    if (!plan) return;
    ModulePlan module{&state, {}};
    module.keys.push_back(*std::move(plan));
    AskModule(module);
    progress_.Report(70, 100);
    const auto errors = ApplyModule(module, PlanPart::kAll, *store_, progress_.task());
    if (!errors.empty()) Fail(errors.front());
    progress_.Report(100, 100);
  }

 private:
  /// Checks the value, then that every instance that stored values refer to is still there.
  void Validate(const Value* desired) const {
    const KeyAddress& address = found_.key->address;
    const DocumentPath root, component(root, address.component), group(component, address.group);
    const DocumentPath path(group, address.key);
    if (desired != nullptr) {
      Violations violations;
      CheckWellFormed(*desired, path, violations);
      CheckKey(*desired, nullptr, *found_.key, Section::kHostSpecific, path, violations);
      if (!violations.empty()) Refuse(violations.found().front());
    }
    // Nothing but references is looked at: what was stored long ago may have become invalid with
    // another version of its module, and must not stand in the way of this key.
    Violations violations;
    CheckStoredReferences(desired, violations);
    if (!violations.empty()) Refuse(violations.found().front());
  }

  /// Checks the references of everything that is stored, with the key's new value in it.
  void CheckStoredReferences(const Value* desired, Violations& violations) const {
    DocumentBuilder builder;
    std::optional<InstanceValues> values;
    if (desired != nullptr) values = SplitInstances(*found_.key, *desired);
    if (values) builder.Add(*found_.key, *values);
    for (const auto& module : found_.modules->modules()) {
      for (const auto& [name, key] : module->keys) {
        const auto stored = current_.stored().Find(key);
        if (&key != found_.key && stored) builder.Add(key, *stored);
      }
    }
    if (builder.empty()) return;
    const std::string host = GetBIOSUUID();
    Document document = std::move(builder).Finish(host);
    document.RequireBoundedDepth();  // or its export could not be handed in again
    MergeDocument(*found_.modules, host, document);
    CheckReferences(document, *found_.modules, host, violations);
  }

  void AskModule(const ModulePlan& plan) const {
    const std::vector<Change> changes = plan.Changes();
    if (changes.empty()) return;
    const PluginAnswer answer =
        RunPlugin(*found_.module, PluginOperation::kValidate, changes, progress_.task());
    if (answer.failure) Fail(*answer.failure);
    if (!answer.errors.empty()) Refuse(answer.errors.front());
    const ModuleImpact impact = AssessModule(plan, progress_.task());
    if (!impact.errors.empty()) Fail(impact.errors.front());
    if (impact.needsMaintenanceMode) RequireMaintenanceMode();
  }

  [[noreturn]] void Refuse(const ValidationErrorInfo& error) const {
    throw InvalidArgumentException(
        CMErrorCode::kBadValue,
        {found_.Name() + ": " + Describe(error) + (error.path.empty() ? "" : " at " + error.path)});
  }

  [[noreturn]] void Fail(const ErrorInfo& error) const {
    throw ConfigStoreException(failure_, {found_.Name() + ": " + Describe(error)});
  }

  const FoundKey found_;
  const CSErrorCode failure_;
  const ChangeTurn turn_;
  const TaskProgress progress_;
  const std::shared_ptr<Store> store_;
  const CurrentConfiguration current_;
};

Document ParseValue(const std::string& value) {
  try {
    return ConfigStoreDocument::CreateDocument(value);
  } catch (const ConfigStoreException&) {
    throw InvalidArgumentException(CMErrorCode::kNoJson);
  }
}

}  // namespace

void SetConfig(const std::string& component, const std::string& group, const std::string& key,
               const std::string& value, const TaskInput* task) {
  FoundKey found = FindKey(component, group, key);
  const Document document = ParseValue(value);
  const Value* desired = &document.root();
  if (!found.key->singleton) {
    desired = JsonDocument::FindMember(*desired, kInstances);
    if (desired == nullptr || !desired->IsArray() || document.root().MemberCount() != 1) {
      throw InvalidArgumentException(CMErrorCode::kNotSingleton, {found.Name()});
    }
  }
  KeyChange(std::move(found), CSErrorCode::kSetFailed, task).Make(desired);
}

void DeleteConfig(const std::string& component, const std::string& group, const std::string& key,
                  const TaskInput* task) {
  FoundKey found = FindKey(component, group, key);
  if (Store::FromPath()->Get(found.key->address).empty()) {
    const std::string id = std::string(kValidationPrefix) + "invalid.delete.default";
    throw InvalidArgumentException(CMErrorCode::kBadValue, {found.Name() + ": " + id});
  }
  KeyChange(std::move(found), CSErrorCode::kDeleteFailed, task).Make(nullptr);
}

std::string GetCurrentConfig(const std::string& component, const std::string& group,
                             const std::string& key) {
  const FoundKey found = FindKey(component, group, key);
  auto entries = Store::FromPath()->Get(found.key->address);
  if (found.key->singleton) {
    const bool isSet = !entries.empty() && entries.front().instance.empty();
    return isSet ? std::move(entries.front().value) : std::string();
  }
  const StoredConfiguration stored(std::move(entries));
  const auto values = stored.Find(*found.key);
  if (!values) return {};
  std::string instances;
  for (const auto& [instance, value] : *values) {
    instances.append(instances.empty() ? "" : ",").append(ToText(value));
  }
  return std::string("{\"") + kInstances + "\":[" + instances + "]}";
}

}  // namespace RyxConfigManager
