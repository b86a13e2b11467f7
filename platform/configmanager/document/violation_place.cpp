#include "configmanager/document/violation_place.h"

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "configmanager/document/document_merge.h"
#include "configmanager/schema/document_path.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::TextOf;
using rapidjson::Value;

using Names = std::span<const std::string>;

/// "/a~1b/c" for {"a/b", "c"}.
std::string PointerTo(Names names) {
  std::string pointer;
  const DocumentPath root;
  for (const std::string& name : names) pointer += DocumentPath(root, name).ToText();
  return pointer;
}

std::vector<std::string> NamesOf(std::string_view pointer) {
  std::vector<std::string> names;
  while (!pointer.empty() && pointer.front() == '/') {
    pointer.remove_prefix(1);
    const std::string_view word = pointer.substr(0, pointer.find('/'));
    pointer.remove_prefix(word.size());
    std::string& name = names.emplace_back();
    for (std::size_t i = 0; i < word.size(); ++i) {
      const bool escaped = word[i] == '~' && i + 1 < word.size();
      name += !escaped ? word[i] : word[++i] == '1' ? '/' : '~';
    }
  }
  return names;
}

const Value* Element(const Value* list, const std::string& index) {
  if (list == nullptr || !list->IsArray() || index.empty() || index.size() > 9) return nullptr;
  std::size_t number = 0;
  for (const char c : index) {
    if (c < '0' || c > '9') return nullptr;
    number = number * 10 + static_cast<std::size_t>(c - '0');
  }
  return number < list->Size() ? &(*list)[static_cast<rapidjson::SizeType>(number)] : nullptr;
}

const Value* Walk(const Value* value, Names names) {
  for (const std::string& name : names) {
    if (value == nullptr) return nullptr;
    value = value->IsArray() ? Element(value, name) : FindMember(*value, name);
  }
  return value;
}

/// Where something that a module named is in one of the document's sections.
class SectionSearch {
 public:
  /// @param names  component, group, key, then the instance's id where the key has instances
  SectionSearch(const Value* section, const KeyDefinition& key, Names names)
      : names_(names.begin(), names.end()) {
    value_ = section == nullptr ? nullptr : Walk(section, names.first(3));
    hasKey_ = value_ != nullptr;
    if (!key.singleton && names_.size() > 3) FindInstance(key);
    value_ = Walk(value_, Names(names_).subspan(3));
  }

  [[nodiscard]] bool hasKey() const { return hasKey_; }
  [[nodiscard]] bool isThere() const { return value_ != nullptr; }
  [[nodiscard]] std::string Pointer() const { return PointerTo(names_); }

 private:
  /// Puts the index in the place of the id.
  void FindInstance(const KeyDefinition& key) {
    if (value_ == nullptr || !value_->IsArray()) return;
    for (rapidjson::SizeType i = 0; i < value_->Size(); ++i) {
      if (TextOf(FindMember((*value_)[i], key.idProperty)) != names_[3]) continue;
      names_[3] = std::to_string(i);
      return;
    }
  }

  std::vector<std::string> names_;
  const Value* value_ = nullptr;
  bool hasKey_ = false;
};

class Locator {
 public:
  Locator(const ModuleSet& modules, const Value& root, const std::string& host)
      : modules_(modules),
        root_(root),
        profile_(FindMember(root, "profile")),
        own_(FindHostSection(root, host)) {
    const Value* const sections = FindMember(root, "host-specific");
    if (own_ == nullptr || sections == nullptr) return;
    for (const auto& [name, section] : JsonDocument::Members(*sections)) {
      if (&section == own_) ownName_ = TextOf(&name);
    }
  }

  void Locate(ErrorInfo& error) const {
    const std::vector<std::string> names = NamesOf(error.path);
    if (const KeyDefinition* const key = FindKey(names)) return LocateModules(error, *key, names);
    if (names.empty() || (names[0] != "profile" && names[0] != "host-specific")) return;
    const std::size_t before = names[0] == "profile" ? 1 : 2;
    if (names.size() < before + 3) return;
    error.address = {names[before], names[before + 1], names[before + 2]};
    const KeyDefinition* const key = modules_.FindKey(error.address);
    if (key == nullptr || key->singleton || names.size() < before + 4) return;
    const Value* const instance = Walk(&root_, Names(names).first(before + 4));
    if (instance != nullptr) error.instance = TextOf(FindMember(*instance, key->idProperty));
  }

 private:
  const KeyDefinition* FindKey(Names names) const {
    return names.size() < 3 ? nullptr : modules_.FindKey({names[0], names[1], names[2]});
  }

  void LocateModules(ErrorInfo& error, const KeyDefinition& key, Names names) const {
    error.address = key.address;
    if (!key.singleton && names.size() > 3) error.instance = names[3];
    const SectionSearch profile(profile_, key, names);
    const SectionSearch own(own_, key, names);
    if (own.isThere() || (own.hasKey() && !profile.hasKey())) {
      const std::string section[] = {"host-specific", ownName_};
      error.path = PointerTo(section) + own.Pointer();
    } else {
      error.path = "/profile" + profile.Pointer();
    }
  }

  const ModuleSet& modules_;
  const Value& root_;
  const Value* const profile_;
  const Value* const own_;
  std::string ownName_;
};

}  // namespace

void LocateErrors(std::span<ErrorInfo> errors, const ModuleSet& modules, const Value& root,
                  const std::string& host) {
  const Locator locator(modules, root, host);
  for (ErrorInfo& error : errors) locator.Locate(error);
}

}  // namespace RyxConfigManager
