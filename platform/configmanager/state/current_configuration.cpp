#include "configmanager/state/current_configuration.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>
#include <utility>

#include "configmanager/schema/member_index.h"
#include "configmanager/state/setting_values.h"
#include "configstore/status_error.h"
#include "tesselibs/log.h"

namespace RyxConfigManager {
namespace {

using RyxConfigStore::KeyAddress;

InstanceValues DefaultsOf(const KeyDefinition& key) {
  if (key.defaultValue == nullptr) return {};
  return SplitInstances(key, *key.defaultValue).value_or(InstanceValues());
}

/// What a key is taken to be when its module does not tell.
void TakeStoredValues(KeyState& key) { key.effective = key.isStored ? key.stored : key.defaults; }

/// Takes what the module answered instead.
void TakeEffectiveValues(ModuleState& state) {
  const MemberIndex values = IndexMembers(&state.answer.values);
  for (KeyState& key : state.keys) {
    const std::string name = key.key->address.group + "/" + key.key->address.key;
    const rapidjson::Value* value = Find(values, name);
    if (value == nullptr) continue;
    // null: nothing is effective.
    auto instances = value->IsNull() ? InstanceValues() : SplitInstances(*key.key, *value);
    if (!instances) {
      state.failure = BadAnswer(*state.module, PluginOperation::kRead, name + " has a wrong form");
      std::ranges::for_each(state.keys, TakeStoredValues);
      return;
    }
    key.effective = *std::move(instances);
  }
}

ModuleState ReadModule(const Module& module, const StoredConfiguration& stored,
                       const TaskInput* task) {
  ModuleState state{&module, {}, {}, {}};
  for (const auto& [name, key] : module.keys) {
    KeyState& added = state.keys.emplace_back(KeyState{&key, DefaultsOf(key), false, {}, {}, {}});
    if (auto values = stored.Find(key)) {
      added.isStored = true;
      added.stored = *std::move(values);
    }
    added.unfit = stored.FindUnfit(key);
    TakeStoredValues(added);
  }
  state.answer = RunPlugin(module, PluginOperation::kRead, {}, task);
  state.failure = state.answer.failure;
  if (!state.answer.errors.empty()) {
    state.failure = state.answer.errors.front();
    Log_Level(LogLevel::kCritical, "%s cannot be read: %s\n", module.component.c_str(),
              state.failure->id.c_str());
  }
  if (!state.failure) TakeEffectiveValues(state);
  return state;
}

/// Texts one after another, each with its length, so that no two lists of texts read the same.
class Listing {
 public:
  void Add(const std::string& text) { text_ += std::to_string(text.size()) + ":" + text; }
  void Add(const InstanceValues& values) {
    Add(std::to_string(values.size()));
    for (const auto& [instance, value] : values) {
      Add(instance);
      Add(ToCanonicalText(*value));
    }
  }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
};

std::string Sha256(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();  // the one thing that can be missing
  }
  std::string hex;
  for (unsigned i = 0; i < size; ++i) {
    char byte[3];
    std::snprintf(byte, sizeof byte, "%02x", digest.at(i));
    hex += byte;
  }
  return hex;
}

/// Whether an entry is of the form that its key has now: another version of the module may have had
/// instances where this one has none, or have told them apart by another property.
bool Fits(const KeyDefinition& key, const std::string& instance, const rapidjson::Value& value) {
  if (!value.IsObject()) return false;
  if (key.singleton) return instance.empty();
  return instance == kEmptyListInstance ? value.ObjectEmpty() : InstanceId(key, value) == instance;
}

}  // namespace

StoredConfiguration::StoredConfiguration(std::vector<RyxConfigStore::Entry> entries) {
  for (RyxConfigStore::Entry& entry : entries) {
    const KeyAddress& address = entry.address;
    const rapidjson::Value* value = pool_.Parse(std::move(entry.value));
    if (value == nullptr) {
      // As an empty value it is replaced by the next apply and goes with the next delete.
      const RyxConfigStore::ConfigStoreException damage(
          RyxConfigStore::CSErrorCode::kUnreadableValue,
          {address.component + "/" + address.group + "/" + address.key});
      Log_Level(LogLevel::kCritical, "[ConfigStore]: %s\n", damage.what());
      value = pool_.Parse("{}");
    }
    values_[address].emplace(std::move(entry.instance), value);
  }
}

std::optional<InstanceValues> StoredConfiguration::Find(const KeyDefinition& key) const {
  const auto found = values_.find(key.address);
  if (found == values_.end()) return {};
  InstanceValues values = found->second;
  std::erase_if(values, [&](const auto& e) { return !Fits(key, e.first, *e.second); });
  if (values.empty()) return {};
  if (!key.singleton) values.erase(kEmptyListInstance);
  return values;
}

std::vector<std::string> StoredConfiguration::FindUnfit(const KeyDefinition& key) const {
  std::vector<std::string> unfit;
  const auto found = values_.find(key.address);
  if (found == values_.end()) return unfit;
  for (const auto& [instance, value] : found->second) {
    if (!Fits(key, instance, *value)) unfit.push_back(instance);
  }
  return unfit;
}

CurrentConfiguration::CurrentConfiguration(RyxConfigStore::Store& store,
                                           std::span<const Module* const> modules,
                                           const TaskProgress& progress)
    : stored_(store.GetAll()) {
  for (const Module* module : modules) {
    progress.Report(modules_.size(), modules.size());
    modules_.push_back(ReadModule(*module, stored_, progress.task()));
  }
  progress.Report(modules.size(), modules.size());
}

std::string CurrentConfiguration::Digest() const {
  Listing listing;
  for (const ModuleState& state : modules_) {
    listing.Add(state.module->component);
    listing.Add(state.module->version);
    listing.Add(state.failure ? "unread" : "read");
    for (const KeyState& key : state.keys) {
      listing.Add(key.key->address.group);
      listing.Add(key.key->address.key);
      for (const auto* values : {&key.defaults, &key.stored, &key.effective}) listing.Add(*values);
    }
  }
  return Sha256(listing.text());
}

std::vector<const Module*> AllModules(const ModuleSet& modules) {
  std::vector<const Module*> all;
  for (const auto& module : modules.modules()) all.push_back(module.get());
  return all;
}

}  // namespace RyxConfigManager
