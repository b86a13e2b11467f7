#include "configmanager/schema/value_check.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "configmanager/schema/member_index.h"
#include "configmanager/schema/value_type.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::Members;
using JsonDocument::TextOf;
using rapidjson::Value;

std::string NumberText(const Value& number) { return JsonDocument::Print(number, 32).GetString(); }

/// UTF-8 (RFC 3629): every character has one byte that is no continuation.
std::uint64_t CountCharacters(std::string_view text) {
  return static_cast<std::uint64_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

void CheckSize(std::uint64_t size, const Schema& schema, std::string_view tooSmall,
               std::string_view tooLarge, const DocumentPath& path, Violations& violations) {
  if (schema.minSize && size < *schema.minSize)
    violations.Add(path, tooSmall, {std::to_string(*schema.minSize)});
  if (schema.maxSize && size > *schema.maxSize)
    violations.Add(path, tooLarge, {std::to_string(*schema.maxSize)});
}

void CheckNumber(const Value& value, const Schema& schema, const DocumentPath& path,
                 Violations& violations) {
  if (schema.minimum != nullptr && IsLess(value, *schema.minimum))
    violations.Add(path, "min.length", {NumberText(value), NumberText(*schema.minimum)});
  if (schema.maximum != nullptr && IsLess(*schema.maximum, value))
    violations.Add(path, "max.length", {NumberText(value), NumberText(*schema.maximum)});
  else if (value.IsUint64() && !value.IsInt64())  // no client could read it back
    violations.Add(path, "max.length",
                   {NumberText(value), std::to_string(std::numeric_limits<std::int64_t>::max())});
}

void CheckString(const Value& value, const Schema& schema, const DocumentPath& path,
                 Violations& violations) {
  const std::string_view text = TextOf(&value);
  CheckSize(CountCharacters(text), schema, "str.min.length", "str.max.length", path, violations);
  if (schema.pattern != nullptr && !re2::RE2::PartialMatch(text, *schema.pattern))
    violations.Add(path, "pattern.mismatch", {schema.pattern->pattern()});
}

void CheckArray(const Value& value, const Schema& schema, Section section, const DocumentPath& path,
                Violations& violations) {
  CheckSize(value.Size(), schema, "array.min.length", "array.max.length", path, violations);
  if (schema.items == nullptr) return;
  // Lists are not merged: an element is all there is of it.
  for (std::size_t i = 0; i < value.Size(); ++i)
    CheckValue(value[static_cast<rapidjson::SizeType>(i)], nullptr, *schema.items, section,
               DocumentPath(path, i), violations);
}

void CheckRequired(const Value& value, const Value* other, const Schema& schema,
                   const DocumentPath& path, Violations& violations) {
  for (const std::string& name : schema.required) {
    if (FindMember(value, name) == nullptr &&
        (other == nullptr || FindMember(*other, name) == nullptr))
      violations.Add(path, "missing.required.property", {name});
  }
}

void CheckObject(const Value& value, const Value* other, const Schema& schema, Section section,
                 const DocumentPath& path, Violations& violations) {
  const MemberIndex others = IndexMembers(other);
  for (const auto& member : Members(value)) {
    const std::string_view name = TextOf(&member.name);
    const DocumentPath place(path, name);
    const auto property = schema.properties.find(name);
    const Schema* const rules =
        property != schema.properties.end() ? property->second.get() : schema.additional.get();
    if (rules == nullptr) {
      if (!schema.allowsAdditional) violations.Add(place, "additional.property");
      continue;
    }
    if (rules->hostSpecific && section == Section::kProfile)
      violations.Add(place, "invalid.host-specific");
    CheckValue(member.value, Find(others, name), *rules, section, place, violations);
  }
  if (section == Section::kProfile || other == nullptr)
    CheckRequired(value, other, schema, path, violations);
}

}  // namespace

void CheckWellFormed(const Value& value, const DocumentPath& path, Violations& violations) {
  if (value.IsNull()) violations.Add(path, "null.value");
  if (value.IsArray()) {
    for (std::size_t i = 0; i < value.Size(); ++i)
      CheckWellFormed(value[static_cast<rapidjson::SizeType>(i)], DocumentPath(path, i),
                      violations);
  }
  std::vector<std::string_view> names;
  for (const auto& member : Members(value)) {
    names.push_back(TextOf(&member.name));
    CheckWellFormed(member.value, DocumentPath(path, names.back()), violations);
  }
  std::sort(names.begin(), names.end());
  for (auto name = names.begin(); (name = std::adjacent_find(name, names.end())) != names.end();
       ++name)
    violations.Add(DocumentPath(path, *name), "duplicate.property", {*name});
}

void CheckValue(const Value& value, const Value* other, const Schema& schema, Section section,
                const DocumentPath& path, Violations& violations) {
  if (value.IsNull()) return;
  if (!IsOfType(value, schema.type)) {
    violations.Add(path, "type.check.failure", {schema.type});
    return;
  }
  if (schema.options != nullptr) {
    const auto options = schema.options->GetArray();
    if (std::find(options.begin(), options.end(), value) == options.end())
      violations.Add(path, "invalid.enum.option");
  }
  if (value.IsNumber()) CheckNumber(value, schema, path, violations);
  if (value.IsString()) CheckString(value, schema, path, violations);
  if (value.IsArray()) CheckArray(value, schema, section, path, violations);
  if (value.IsObject()) CheckObject(value, other, schema, section, path, violations);
}

}  // namespace RyxConfigManager
