#include "configmanager/document/document_merge.h"

#include <strings.h>

#include <array>
#include <cstddef>
#include <string_view>

#include "configmanager/schema/member_index.h"
#include "configstore/store.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::Members;
using JsonDocument::TextOf;
using rapidjson::Value;
using RyxConfigStore::KeyAddress;

/// The names that lead to a key, from the outside in.
constexpr std::array kNames{&KeyAddress::component, &KeyAddress::group, &KeyAddress::key};

/// Lays sections of a document over each other.
class Merger {
 public:
  Merger(const ModuleSet& modules, rapidjson::Document& merged)
      : modules_(modules), allocator_(merged.GetAllocator()) {}

  void LaySection(Value& target, const Value& section) {
    if (section.IsObject()) LayNames(target, section, 0);
  }

 private:
  /// @param level  of the name that the members have in the address of their keys
  void LayNames(Value& target, const Value& over, std::size_t level) {
    if (!target.IsObject() || !over.IsObject()) return Replace(target, over);
    LayMembers(target, over, [&](Value& inner, const Value& innerOver, std::string_view name) {
      address_.*kNames.at(level) = name;
      if (level + 1 < kNames.size())
        LayNames(inner, innerOver, level + 1);
      else
        LayKey(inner, innerOver);
    });
  }

  void LayKey(Value& target, const Value& over) {
    const KeyDefinition* const key = modules_.FindKey(address_);
    if (key != nullptr && !key->singleton && target.IsArray() && over.IsArray())
      LayInstances(target, over, key->idProperty);
    else
      LayValue(target, over);
  }

  void LayInstances(Value& target, const Value& over, const std::string& idProperty) {
    MemberIndex left = IndexInstances(&over, idProperty);
    for (Value& instance : target.GetArray()) {
      const auto found = left.find(TextOf(FindMember(instance, idProperty)));
      if (found == left.end()) continue;
      LayValue(instance, *found->second);
      left.erase(found);
    }
    for (const Value& instance : over.GetArray()) {
      if (Find(left, TextOf(FindMember(instance, idProperty))) == &instance)
        target.PushBack(Value(instance, allocator_), allocator_);
    }
  }

  void LayValue(Value& target, const Value& over) {
    if (!target.IsObject() || !over.IsObject()) return Replace(target, over);
    LayMembers(target, over, [&](Value& property, const Value& propertyOver, std::string_view) {
      LayValue(property, propertyOver);
    });
  }

  void Replace(Value& target, const Value& over) { target.CopyFrom(over, allocator_); }

  /// Adds the members that the target does not have, and calls `lay` for those that it has.
  template <typename Lay>
  void LayMembers(Value& target, const Value& over, const Lay& lay) {
    MemberIndex left = IndexMembers(&over);
    for (auto& [name, value] : Members(target)) {
      const auto found = left.find(TextOf(&name));
      if (found == left.end()) continue;
      lay(value, *found->second, found->first);
      left.erase(found);
    }
    for (const auto& [name, value] : Members(over)) {
      if (Find(left, TextOf(&name)) == &value)
        target.AddMember(Value(name, allocator_), Value(value, allocator_), allocator_);
    }
  }

  const ModuleSet& modules_;
  rapidjson::Document::AllocatorType& allocator_;
  KeyAddress address_;  // of what is being laid over
};

}  // namespace

void MergeDocument(const ModuleSet& modules, const std::string& host,
                   ConfigStoreDocument::Document& document) {
  rapidjson::Document& merged = document.EditMerged();
  merged = rapidjson::Document(rapidjson::kObjectType);
  Merger merger(modules, merged);
  if (const Value* const profile = FindMember(document.root(), "profile"))
    merger.LaySection(merged, *profile);
  if (const Value* const section = FindHostSection(document.root(), host))
    merger.LaySection(merged, *section);
}

bool IsSectionOf(const std::string& host, const Value& name) {
  const std::string_view text = TextOf(&name);
  return text.size() == host.size() && strncasecmp(text.data(), host.data(), host.size()) == 0;
}

const Value* FindHostSection(const Value& root, const std::string& host) {
  const Value* const sections = FindMember(root, "host-specific");
  if (sections == nullptr) return nullptr;
  for (const auto& [name, section] : Members(*sections))
    if (IsSectionOf(host, name)) return &section;
  return nullptr;
}

}  // namespace RyxConfigManager
