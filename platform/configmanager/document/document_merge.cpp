#include "configmanager/document/document_merge.h"

#include <strings.h>

#include <map>
#include <string_view>

#include "configmanager/config_manager.h"
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

/// The id properties of the keys that have instances.
std::map<KeyAddress, std::string> ReadIdProperties(const Value& schema) {
  std::map<KeyAddress, std::string> found;
  const Value* const components = FindMember(schema, "components");
  if (components == nullptr) return found;
  for (const auto& [component, description] : Members(*components)) {
    const Value* const groups = FindMember(description, "groups");
    if (groups == nullptr) continue;
    for (const auto& [group, content] : Members(*groups)) {
      const Value* const keys = FindMember(content, "keys");
      if (keys == nullptr) continue;
      for (const auto& [key, definition] : Members(*keys)) {
        const std::string_view id = TextOf(FindMember(definition, "id_property"));
        if (!id.empty())
          found.emplace(KeyAddress{std::string(TextOf(&component)), std::string(TextOf(&group)),
                                   std::string(TextOf(&key))},
                        id);
      }
    }
  }
  return found;
}

/// Lays sections of a document over each other.
class Merger {
 public:
  Merger(const Value& schema, rapidjson::Document& merged)
      : idProperties_(ReadIdProperties(schema)), allocator_(merged.GetAllocator()) {}

  void LaySection(Value& target, const Value& section) {
    LayMembers(target, section, [&](Value& component, const Value& over, std::string_view name) {
      address_.component = name;
      LayComponent(component, over);
    });
  }

 private:
  void LayComponent(Value& target, const Value& over) {
    if (!target.IsObject() || !over.IsObject()) return Replace(target, over);
    LayMembers(target, over, [&](Value& group, const Value& groupOver, std::string_view name) {
      address_.group = name;
      LayGroup(group, groupOver);
    });
  }

  void LayGroup(Value& target, const Value& over) {
    if (!target.IsObject() || !over.IsObject()) return Replace(target, over);
    LayMembers(target, over, [&](Value& key, const Value& keyOver, std::string_view name) {
      address_.key = name;
      const auto idProperty = idProperties_.find(address_);
      if (idProperty != idProperties_.end() && key.IsArray() && keyOver.IsArray())
        LayInstances(key, keyOver, idProperty->second);
      else
        LayValue(key, keyOver);
    });
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

  const std::map<KeyAddress, std::string> idProperties_;
  rapidjson::Document::AllocatorType& allocator_;
  KeyAddress address_;  // of what is being laid over
};

}  // namespace

void MergeDocument(const Value& schema, const std::string& host,
                   ConfigStoreDocument::Document& document) {
  rapidjson::Document& merged = document.EditMerged();
  merged = rapidjson::Document(rapidjson::kObjectType);
  Merger merger(schema, merged);
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

void CreateMergedDocument(const Document& schema, Document& document) {
  MergeDocument(schema.root(), GetBIOSUUID(), document);
}

}  // namespace RyxConfigManager
