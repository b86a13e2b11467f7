#include "orbi/data/value.h"

#include <algorithm>
#include <array>

namespace Orbi::Data {
namespace {

const Value* FindField(const std::vector<Field>& fields, std::string_view name) {
  const auto it =
      std::find_if(fields.begin(), fields.end(), [&](const Field& f) { return f.name == name; });
  return it == fields.end() ? nullptr : &it->value;
}

}  // namespace

bool List::operator==(const List& other) const { return items == other.items; }

bool Optional::operator==(const Optional& other) const {
  if (!value || !other.value) return !value && !other.value;
  return *value == *other.value;
}

const Value* Structure::Find(std::string_view field) const { return FindField(fields, field); }

Structure& Structure::Add(std::string field, Value value) {
  fields.push_back({std::move(field), std::move(value)});
  return *this;
}

bool Structure::operator==(const Structure& other) const {
  return name == other.name && fields == other.fields;
}

std::shared_ptr<const ErrorValue> ErrorValue::Create(std::string id) {
  return std::make_shared<const ErrorValue>(ErrorValue{std::move(id), {}});
}

const Value* ErrorValue::Find(std::string_view field) const { return FindField(fields, field); }

ErrorValue& ErrorValue::Add(std::string field, Value value) {
  fields.push_back({std::move(field), std::move(value)});
  return *this;
}

std::string ErrorValue::ToText() const {
  std::string text = id;
  const Value* messages = Find("messages");
  const List* list = messages ? messages->As<List>() : nullptr;
  if (!list) return text;
  for (const Value& item : list->items) {
    const auto* message = item.As<Structure>();
    const Value* field = message ? message->Find("default_message") : nullptr;
    if (const auto* words = field ? field->As<std::string>() : nullptr) text += ": " + *words;
  }
  return text;
}

bool ErrorValue::operator==(const ErrorValue& other) const {
  return id == other.id && fields == other.fields;
}

bool Field::operator==(const Field& other) const {
  return name == other.name && value == other.value;
}

Value::Value() = default;
Value::Value(const Value&) = default;
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(const Value&) = default;
Value& Value::operator=(Value&&) noexcept = default;
Value::~Value() = default;

Value::Value(bool v) : storage_(v) {}
Value::Value(std::int64_t v) : storage_(v) {}
Value::Value(double v) : storage_(v) {}
Value::Value(int v) : storage_(std::int64_t{v}) {}
Value::Value(const char* v) : storage_(std::string(v)) {}
Value::Value(std::string v) : storage_(std::move(v)) {}
Value::Value(Blob v) : storage_(std::move(v)) {}
Value::Value(Secret v) : storage_(std::move(v)) {}
Value::Value(List v) : storage_(std::move(v)) {}
Value::Value(Optional v) : storage_(std::move(v)) {}
Value::Value(Structure v) : storage_(std::move(v)) {}
Value::Value(ErrorValue v) : storage_(std::move(v)) {}

bool Value::operator==(const Value& other) const { return storage_ == other.storage_; }

std::string_view Value::TypeName() const {
  static constexpr std::array<std::string_view, std::variant_size_v<Storage>> kNames = {
      "void",   "boolean", "integer",  "double",    "string", "binary",
      "secret", "list",    "optional", "structure", "error"};
  return kNames[storage_.index()];
}

Optional Some(Value value) { return Optional{std::make_shared<const Value>(std::move(value))}; }

}  // namespace Orbi::Data
