#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/document/document_builder.h"
#include "configmanager/document/document_merge.h"
#include "configmanager/document/reference_check.h"
#include "configmanager/document/violation_place.h"
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
constexpr char kProfile[] = "profile";

/// A key of a module, both of them held.
struct FoundKey {
  std::shared_ptr<const ModuleSet> modules;
  const Module* module;
  const KeyDefinition* key;

  [[nodiscard]] std::string Name() const {
    return key->address.component + "/" + key->address.group + "/" + key->address.key;
  }
};

std::string Join(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text.append(text.empty() ? "" : ", ").append(name);
  return text;
}

/// What there is instead of a key that is not.
ErrorInfo KnownInstead(const ModuleSet& modules, const KeyAddress& address) {
  const Module* const module = modules.FindModule(address.component);
  std::set<std::string> components, groups, keys;
  for (const auto& known : modules.modules()) components.insert(known->component);
  if (module == nullptr) {
    return {"com.tessel.ryx.settings.component.unknown", {address.component, Join(components)}};
  }
  for (const auto& [name, key] : module->keys) {
    groups.insert(name.first);
    if (name.first == address.group) keys.insert(name.second);
  }
  if (keys.empty()) {
    return {"com.tessel.ryx.settings.group.unknown",
            {address.component, address.group, Join(groups)}};
  }
  return {"com.tessel.ryx.settings.key.unknown",
          {address.component, address.group, address.key, Join(keys)}};
}

FoundKey FindKey(const std::string& component, const std::string& group, const std::string& key) {
  auto modules = InstalledModules();
  const Module* module = modules->FindModule(component);
  const KeyDefinition* definition = modules->FindKey({component, group, key});
  if (definition == nullptr) {
    const ErrorInfo violation{std::string(kValidationPrefix) + "schema.not-found",
                              {component, group, key}};
    throw InvalidArgumentException(CMErrorCode::kUnknownKey, {component + "/" + group + "/" + key},
                                   {violation, KnownInstead(*modules, {component, group, key})});
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
    if (state.failure) Fail({*state.failure}, desired);
    Validate(desired);
    const auto isKey = [this](const KeyState& key) { return key.key == found_.key; };
    auto plan = PlanKey(*std::ranges::find_if(state.keys, isKey), desired);
    if (!plan) return;
    ModulePlan module{&state, {}};
    module.keys.push_back(*std::move(plan));
    AskModule(module, desired);
    progress_.Report(70, 100);
    auto errors = ApplyModule(module, PlanPart::kAll, *store_, progress_.task());
    if (!errors.empty()) Fail(std::move(errors), desired);
    progress_.Report(100, 100);
  }

 private:
  /// Checks the value, then that every instance that stored values refer to is still there.
  void Validate(const Value* desired) const {
    const KeyAddress& address = found_.key->address;
    const DocumentPath root, profile(root, kProfile), component(profile, address.component);
    const DocumentPath group(component, address.group), path(group, address.key);
    if (desired != nullptr) {
      Violations violations;
      CheckWellFormed(*desired, path, violations);
      CheckKey(*desired, nullptr, *found_.key, Section::kHostSpecific, path, violations);
      if (!violations.empty()) Refuse(violations.Take(), desired);
    }
    // Nothing but references is looked at: what was stored long ago may have become invalid with
    // another version of its module, and must not stand in the way of this key.
    Violations violations;
    CheckStoredReferences(desired, violations);
    if (!violations.empty()) Refuse(violations.Take(), desired);
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

  void AskModule(const ModulePlan& plan, const Value* desired) const {
    const std::vector<Change> changes = plan.Changes();
    if (changes.empty()) return;
    PluginAnswer answer =
        RunPlugin(*found_.module, PluginOperation::kValidate, changes, progress_.task());
    if (answer.failure) Fail({*answer.failure}, desired);
    if (!answer.errors.empty()) Refuse(std::move(answer.errors), desired);
    ModuleImpact impact = AssessModule(plan, progress_.task());
    if (!impact.errors.empty()) Fail(std::move(impact.errors), desired);
    if (impact.needsMaintenanceMode) RequireMaintenanceMode();
  }

  [[noreturn]] void Refuse(std::vector<ErrorInfo> errors, const Value* desired) const {
    const ErrorInfo& first = errors.front();
    std::string_view place = first.path;
    const std::string own = std::string("/") + kProfile + "/" + found_.Name();
    if (place.starts_with(own)) place.remove_prefix(own.size() - found_.Name().size() - 1);
    const std::string text =
        found_.Name() + ": " + Describe(first) + (place.empty() ? "" : " at " + std::string(place));
    Locate(errors, desired);
    throw InvalidArgumentException(CMErrorCode::kBadValue, {text}, std::move(errors));
  }

  [[noreturn]] void Fail(std::vector<ErrorInfo> errors, const Value* desired) const {
    const std::string text = found_.Name() + ": " + Describe(errors.front());
    Locate(errors, desired);
    throw KeyChangeFailed(failure_, text, std::move(errors));
  }

  /// As in a document that asks for this key only.
  void Locate(std::vector<ErrorInfo>& errors, const Value* desired) const {
    rapidjson::Document document(rapidjson::kObjectType);
    auto& memory = document.GetAllocator();
    const auto& [component, group, key] = found_.key->address;
    Value inner = desired == nullptr ? Value() : Value(*desired, memory);
    for (const std::string* name : {&key, &group, &component}) {
      Value outer(rapidjson::kObjectType);
      outer.AddMember(Value(*name, memory), inner, memory);
      inner = std::move(outer);
    }
    document.AddMember(rapidjson::StringRef(kProfile), inner, memory);
    LocateErrors(errors, *found_.modules, document, GetBIOSUUID());
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
      const std::string& idProperty = found.key->idProperty;
      throw InvalidArgumentException(
          CMErrorCode::kNotSingleton, {found.Name()},
          {{"com.tessel.ryx.settings.instances.expected", {found.Name(), idProperty}}});
    }
  }
  KeyChange(std::move(found), CSErrorCode::kSetFailed, task).Make(desired);
}

void DeleteConfig(const std::string& component, const std::string& group, const std::string& key,
                  const TaskInput* task) {
  FoundKey found = FindKey(component, group, key);
  if (Store::FromPath()->Get(found.key->address).empty()) {
    const std::string id = std::string(kValidationPrefix) + "invalid.delete.default";
    throw InvalidArgumentException(
        CMErrorCode::kBadValue, {found.Name() + ": " + id},
        {{id, {}}, {"com.tessel.ryx.settings.key.not_set", {found.Name()}}});
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
