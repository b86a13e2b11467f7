#include "configmanager/schema/schema.h"

#include <algorithm>
#include <span>
#include <utility>

#include "configmanager/schema/document_path.h"
#include "configmanager/schema/value_type.h"
#include "tesselibs/json_document.h"

namespace RyxConfigManager {
namespace {

using rapidjson::Value;

std::unique_ptr<Schema> Read(const Value& description, const DocumentPath& path);

[[noreturn]] void Refuse(const DocumentPath& path, const std::string& why) {
  throw SchemaError(path.ToText() + " " + why);
}

std::string ReadText(const Value& value, const DocumentPath& path) {
  if (!value.IsString()) Refuse(path, "is not a string");
  return std::string(JsonDocument::TextOf(&value));
}

bool ReadFlag(const Value& value, const DocumentPath& path) {
  if (!value.IsBool()) Refuse(path, "is neither true nor false");
  return value.GetBool();
}

void ReadType(const Value& value, const DocumentPath& path, Schema& schema) {
  const std::string_view name = JsonDocument::TextOf(&value);
  if (!IsTypeName(name)) Refuse(path, "is not the name of a type");
  schema.type = name;
}

void ReadDescription(const Value& value, const DocumentPath& path, Schema&) {
  static_cast<void>(ReadText(value, path));
}

void ReadOptions(const Value& value, const DocumentPath& path, Schema& schema) {
  if (!value.IsArray() || value.Empty()) Refuse(path, "is not a list of values");
  schema.options = &value;
}

template <const Value* Schema::*Bound>
void ReadBound(const Value& value, const DocumentPath& path, Schema& schema) {
  if (!value.IsNumber()) Refuse(path, "is not a number");
  schema.*Bound = &value;
}

template <std::optional<std::uint64_t> Schema::*Bound>
void ReadSize(const Value& value, const DocumentPath& path, Schema& schema) {
  if (!value.IsUint64()) Refuse(path, "is not a whole number from 0");
  schema.*Bound = value.GetUint64();
}

void ReadPattern(const Value& value, const DocumentPath& path, Schema& schema) {
  re2::RE2::Options options;
  options.set_log_errors(false);
  auto pattern = std::make_unique<const re2::RE2>(ReadText(value, path), options);
  if (!pattern->ok()) Refuse(path, "is not a regular expression: " + pattern->error());
  schema.pattern = std::move(pattern);
}

void ReadItems(const Value& value, const DocumentPath& path, Schema& schema) {
  schema.items = Read(value, path);
}

void ReadProperties(const Value& value, const DocumentPath& path, Schema& schema) {
  if (!value.IsObject()) Refuse(path, "is not an object");
  for (const auto& [name, description] : JsonDocument::Members(value)) {
    const std::string_view text = JsonDocument::TextOf(&name);
    schema.properties.emplace(text, Read(description, DocumentPath(path, text)));
  }
}

void ReadRequired(const Value& value, const DocumentPath& path, Schema& schema) {
  if (!value.IsArray()) Refuse(path, "is not a list");
  for (const Value& name : value.GetArray()) schema.required.push_back(ReadText(name, path));
}

void ReadAdditional(const Value& value, const DocumentPath& path, Schema& schema) {
  if (value.IsObject())
    schema.additional = Read(value, path);
  else
    schema.allowsAdditional = ReadFlag(value, path);
}

void ReadHostSpecific(const Value& value, const DocumentPath& path, Schema& schema) {
  schema.hostSpecific = ReadFlag(value, path);
}

struct Keyword {
  std::string_view name;
  std::string_view types;  ///< that it restricts; empty for all
  void (*read)(const Value& value, const DocumentPath& path, Schema& schema);
};

constexpr Keyword kKeywords[] = {
    {"type", "", ReadType},
    {"description", "", ReadDescription},
    {"enum", "", ReadOptions},
    {"host_specific", "", ReadHostSpecific},
    {"minimum", "number, integer", ReadBound<&Schema::minimum>},
    {"maximum", "number, integer", ReadBound<&Schema::maximum>},
    {"minLength", "string", ReadSize<&Schema::minSize>},
    {"maxLength", "string", ReadSize<&Schema::maxSize>},
    {"pattern", "string", ReadPattern},
    {"items", "array", ReadItems},
    {"minItems", "array", ReadSize<&Schema::minSize>},
    {"maxItems", "array", ReadSize<&Schema::maxSize>},
    {"properties", "object", ReadProperties},
    {"required", "object", ReadRequired},
    {"additionalProperties", "object", ReadAdditional},
};

const Keyword& FindKeyword(std::string_view name, const DocumentPath& path) {
  const auto* const keyword = std::find_if(std::begin(kKeywords), std::end(kKeywords),
                                           [&](const Keyword& k) { return k.name == name; });
  if (keyword == std::end(kKeywords)) Refuse(path, "is not a keyword of schemas");
  return *keyword;
}

/// What JSON Schema takes silently though no value ever meets it, or all do, is a slip of the
/// author.
void RefuseContradictions(const Schema& schema, const DocumentPath& path) {
  if (schema.options != nullptr) {
    for (const Value& option : schema.options->GetArray()) {
      if (option.IsNull() || !IsOfType(option, schema.type))
        Refuse(DocumentPath(path, "enum"), "has a value of another type");
    }
  }
  if (schema.minimum != nullptr && schema.maximum != nullptr &&
      IsLess(*schema.maximum, *schema.minimum))
    Refuse(path, "has its maximum below its minimum");
  if (schema.minSize && schema.maxSize && *schema.maxSize < *schema.minSize)
    Refuse(path, "has its largest size below its smallest");
  for (const std::string& name : schema.required) {
    if (!schema.allowsAdditional && !schema.properties.contains(name))
      Refuse(DocumentPath(path, "required"), "names '" + name + "', which is no property");
  }
}

std::unique_ptr<Schema> Read(const Value& description, const DocumentPath& path) {
  if (!description.IsObject()) Refuse(path, "is not a schema");
  auto schema = std::make_unique<Schema>();
  const std::string_view type = JsonDocument::TextOf(JsonDocument::FindMember(description, "type"));
  for (const auto& [name, value] : JsonDocument::Members(description)) {
    const DocumentPath place(path, JsonDocument::TextOf(&name));
    const Keyword& keyword = FindKeyword(JsonDocument::TextOf(&name), place);
    const bool applies = keyword.types.empty() ||
                         (!type.empty() && keyword.types.find(type) != std::string_view::npos);
    if (!applies) Refuse(place, "needs one of these types: " + std::string(keyword.types));
    keyword.read(value, place, *schema);
  }
  RefuseContradictions(*schema, path);
  return schema;
}

}  // namespace

std::unique_ptr<Schema> ReadSchema(const Value& description) { return Read(description, {}); }

}  // namespace RyxConfigManager
