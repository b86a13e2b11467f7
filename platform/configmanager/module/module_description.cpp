#include "configmanager/module/module_description.h"

#include <rapidjson/error/en.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "configmanager/module/description_format.h"
#include "configmanager/module/key_check.h"
#include "configmanager/schema/schema.h"
#include "configmanager/schema/value_check.h"
#include "configmanager/schema/violations.h"
#include "configstore/document.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using JsonDocument::FindMember;
using JsonDocument::Members;
using JsonDocument::TextOf;
using rapidjson::Value;
using RyxConfigStore::KeyAddress;

std::string NameOf(const KeyAddress& key) {
  return key.component + '/' + key.group + '/' + key.key;
}

void RefuseViolations(const Violations& violations, CMErrorCode code, const std::string& where) {
  if (violations.empty()) return;
  const ErrorInfo& first = violations.found().front();
  std::string detail = where + first.path + ' ' + first.id.substr(kValidationPrefix.size());
  for (const std::string& argument : first.args) detail += " '" + argument + '\'';
  throw DescriptionError(code, detail);
}

void RequireForm(const Value& description, const Schema& format) {
  Violations violations;
  CheckWellFormed(description, {}, violations);
  CheckValue(description, nullptr, format, Section::kHostSpecific, {}, violations);
  RefuseViolations(violations, CMErrorCode::kBadDescription, "");
}

std::string ReadName(const Value& name) {
  static constexpr std::string_view kCharacters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  const std::string_view text = TextOf(&name);
  if (text.empty() || text.find_first_not_of(kCharacters) != std::string_view::npos)
    throw DescriptionError(CMErrorCode::kBadDescription, "'" + std::string(text) + "' is no name");
  return std::string(text);
}

bool IsSet(const Value& object, std::string_view flag) {
  const Value* const value = FindMember(object, flag);
  return value != nullptr && value->GetBool();
}

KeyAddress ReadAddress(std::string_view text) {
  const auto first = text.find('/');
  const auto second = first == std::string_view::npos ? first : text.find('/', first + 1);
  if (second == std::string_view::npos)
    throw DescriptionError(CMErrorCode::kBadDescription,
                           "'" + std::string(text) + "' is not COMPONENT/GROUP/KEY");
  return {std::string(text.substr(0, first)),
          std::string(text.substr(first + 1, second - first - 1)),
          std::string(text.substr(second + 1))};
}

/// Requires a property that holds a string, or a list of them where that is allowed.
void RequireTextProperty(const Schema& schema, const std::string& name, bool listAllowed,
                         const std::string& key) {
  const auto found = schema.properties.find(name);
  const Schema* property = found == schema.properties.end() ? nullptr : found->second.get();
  if (listAllowed && property != nullptr && property->type == "array")
    property = property->items.get();
  if (property == nullptr || property->type != "string")
    throw DescriptionError(CMErrorCode::kBadDescription,
                           key + ": '" + name + "' is not a string property of the schema");
}

void ReadInstances(const Value& description, KeyDefinition& key, Schema& schema) {
  key.idProperty = TextOf(FindMember(description, "id_property"));
  const Value* const singleton = FindMember(description, "singleton");
  key.singleton = singleton == nullptr ? key.idProperty.empty() : singleton->GetBool();
  if (key.singleton != key.idProperty.empty())
    throw DescriptionError(CMErrorCode::kBadDescription,
                           NameOf(key.address) +
                               ": a key that is not a singleton, and no other, has "
                               "an id_property");
  if (key.singleton) return;
  RequireTextProperty(schema, key.idProperty, false, NameOf(key.address));
  // A missing id is told by a message of its own.
  std::erase(schema.required, key.idProperty);
}

void ReadReferences(const Value* references, KeyDefinition& key) {
  if (references == nullptr) return;
  for (const Value& reference : references->GetArray()) {
    const std::string property(TextOf(FindMember(reference, "property")));
    RequireTextProperty(*key.rules, property, true, NameOf(key.address));
    key.references.push_back({property, ReadAddress(TextOf(FindMember(reference, "to")))});
  }
}

void ReadRules(const Value& description, KeyDefinition& key) {
  key.schema = FindMember(description, "schema");
  std::unique_ptr<Schema> schema;
  try {
    schema = ReadSchema(*key.schema);
  } catch (const SchemaError& error) {
    throw DescriptionError(CMErrorCode::kBadDescription,
                           NameOf(key.address) + ": schema" + error.what());
  }
  if (schema->type != "object")
    throw DescriptionError(CMErrorCode::kBadDescription,
                           NameOf(key.address) + ": the schema's type is not object");
  ReadInstances(description, key, *schema);
  key.rules = std::move(schema);
}

KeyDefinition ReadKey(const Value& description, KeyAddress address) {
  KeyDefinition key;
  key.address = std::move(address);
  key.hostSpecific = IsSet(description, "host_specific");
  ReadRules(description, key);
  ReadReferences(FindMember(description, "references"), key);
  if (const Value* const needs = FindMember(description, "requires")) {
    key.needsMaintenanceMode = IsSet(*needs, "maintenance_mode");
    key.needsReboot = IsSet(*needs, "reboot");
  }
  key.defaultValue = FindMember(description, "default");
  if (key.defaultValue != nullptr) {
    Violations violations;
    CheckKey(*key.defaultValue, nullptr, key, Section::kHostSpecific, {}, violations);
    RefuseViolations(violations, CMErrorCode::kBadValue, NameOf(key.address) + ": default");
  }
  return key;
}

void ReadKeys(const Value& groups, Module& module) {
  for (const auto& [group_name, group] : Members(groups)) {
    const std::string groupText = ReadName(group_name);
    for (const auto& [name, description] : Members(*FindMember(group, "keys"))) {
      const std::string text = ReadName(name);
      module.keys.emplace(std::pair(groupText, text),
                          ReadKey(description, {module.component, groupText, text}));
    }
  }
}

void RequireFormat(const Value& description) {
  const Value* const format = FindMember(description, "format");
  if (format != nullptr && format->IsNumber() && *format != Value(kModuleFormatVersion))
    throw DescriptionError(CMErrorCode::kUnknownFormat,
                           "format " + std::string(JsonDocument::Print(*format, 16).GetString()));
}

std::filesystem::path ReadExecutable(const Value* executables, std::string_view operation,
                                     const std::filesystem::path& folder) {
  const Value* const value = executables == nullptr ? nullptr : FindMember(*executables, operation);
  if (value == nullptr) return {};
  const std::filesystem::path name(TextOf(value));
  const auto climbs = [](const std::filesystem::path& part) { return part == ".."; };
  if (!name.has_filename() || name.is_absolute() || name == "." ||
      std::any_of(name.begin(), name.end(), climbs))
    throw DescriptionError(
        CMErrorCode::kBadDescription,
        "executable '" + name.string() + "' is not a file within the module's folder");
  return folder / name;
}

}  // namespace

std::unique_ptr<const Module> ReadModule(const std::filesystem::path& folder, std::string text) {
  auto module = std::make_unique<Module>();
  module->folder = folder;
  module->text = std::move(text);
  const auto result =
      JsonDocument::ParseInPlace(module->text, module->description, ConfigStoreDocument::kMaxDepth);
  if (result.IsError())
    throw DescriptionError(CMErrorCode::kNoJson, "byte " + std::to_string(result.Offset()) + ": " +
                                                     rapidjson::GetParseError_En(result.Code()));
  const Value& description = module->description;
  RequireFormat(description);
  RequireForm(description, ModuleFormat());

  module->component = ReadName(*FindMember(description, "component"));
  module->version = TextOf(FindMember(description, "version"));
  const Value* const executables = FindMember(description, "executables");
  module->executables = {.validate = ReadExecutable(executables, "validate", folder),
                         .impact = ReadExecutable(executables, "impact", folder),
                         .read = ReadExecutable(executables, "read", folder),
                         .apply = ReadExecutable(executables, "apply", folder)};
  if (const Value* const timeout = FindMember(description, "timeout_seconds"))
    module->timeout = std::chrono::seconds(static_cast<long>(timeout->GetDouble()));
  ReadKeys(*FindMember(description, "groups"), *module);
  return module;
}

}  // namespace RyxConfigManager
