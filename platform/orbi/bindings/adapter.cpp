#include "orbi/bindings/adapter.h"

#include "orbi/json/base64.h"

namespace Orbi::Bindings {
namespace {

/// The alternative T of the value, or a mismatch.
template <typename T>
std::optional<T> Alternative(const Data::Value& value, AdaptErrors& errors) {
  if (const T* native = value.As<T>()) return *native;
  errors.Mismatch(Adapter<T>::TypeName(), value);
  return std::nullopt;
}

}  // namespace

std::string_view Adapter<bool>::TypeName() { return "boolean"; }
Data::Value Adapter<bool>::ToValue(const bool& native) { return Data::Value(native); }
std::optional<bool> Adapter<bool>::FromValue(const Data::Value& value, AdaptErrors& errors) {
  return Alternative<bool>(value, errors);
}

std::string_view Adapter<std::int64_t>::TypeName() { return "integer"; }
Data::Value Adapter<std::int64_t>::ToValue(const std::int64_t& native) {
  return Data::Value(native);
}
std::optional<std::int64_t> Adapter<std::int64_t>::FromValue(const Data::Value& value,
                                                             AdaptErrors& errors) {
  return Alternative<std::int64_t>(value, errors);
}

std::string_view Adapter<double>::TypeName() { return "double"; }
Data::Value Adapter<double>::ToValue(const double& native) { return Data::Value(native); }
std::optional<double> Adapter<double>::FromValue(const Data::Value& value, AdaptErrors& errors) {
  // JSON does not tell 1 from 1.0.
  if (const auto* integer = value.As<std::int64_t>()) return static_cast<double>(*integer);
  return Alternative<double>(value, errors);
}

std::string_view Adapter<std::string>::TypeName() { return "string"; }
Data::Value Adapter<std::string>::ToValue(const std::string& native) { return native; }
std::optional<std::string> Adapter<std::string>::FromValue(const Data::Value& value,
                                                           AdaptErrors& errors) {
  return Alternative<std::string>(value, errors);
}

std::string_view Adapter<Data::Secret>::TypeName() { return "secret"; }
Data::Value Adapter<Data::Secret>::ToValue(const Data::Secret& native) { return native; }
std::optional<Data::Secret> Adapter<Data::Secret>::FromValue(const Data::Value& value,
                                                             AdaptErrors& errors) {
  if (const auto* text = value.As<std::string>()) return Data::Secret{*text};
  return Alternative<Data::Secret>(value, errors);
}

std::string_view Adapter<Data::Blob>::TypeName() { return "binary"; }
Data::Value Adapter<Data::Blob>::ToValue(const Data::Blob& native) { return native; }
std::optional<Data::Blob> Adapter<Data::Blob>::FromValue(const Data::Value& value,
                                                         AdaptErrors& errors) {
  if (const auto* text = value.As<std::string>()) {
    if (auto bytes = Protocol::Json::DecodeBase64(*text)) return Data::Blob{std::move(*bytes)};
    return errors.MismatchedText(TypeName()), std::nullopt;
  }
  return Alternative<Data::Blob>(value, errors);
}

std::string_view Adapter<DateTime>::TypeName() { return "date-time"; }
Data::Value Adapter<DateTime>::ToValue(const DateTime& native) { return native.ToText(); }
std::optional<DateTime> Adapter<DateTime>::FromValue(const Data::Value& value,
                                                     AdaptErrors& errors) {
  const auto* text = value.As<std::string>();
  if (!text) return errors.Mismatch(TypeName(), value), std::nullopt;
  const std::optional<DateTime> time = DateTime::Create(*text);
  if (!time) errors.MismatchedText(TypeName());
  return time;
}

std::string_view Adapter<DynamicStructure>::TypeName() { return "structure"; }
Data::Value Adapter<DynamicStructure>::ToValue(const DynamicStructure& native) { return native; }
std::optional<DynamicStructure> Adapter<DynamicStructure>::FromValue(const Data::Value& value,
                                                                     AdaptErrors& errors) {
  return Alternative<DynamicStructure>(value, errors);
}

std::string_view Adapter<Data::ErrorValue>::TypeName() { return "error"; }
Data::Value Adapter<Data::ErrorValue>::ToValue(const Data::ErrorValue& native) { return native; }
std::optional<Data::ErrorValue> Adapter<Data::ErrorValue>::FromValue(const Data::Value& value,
                                                                     AdaptErrors& errors) {
  return Alternative<Data::ErrorValue>(value, errors);
}

std::string_view Adapter<Data::Value>::TypeName() { return "any value"; }
Data::Value Adapter<Data::Value>::ToValue(const Data::Value& native) { return native; }
std::optional<Data::Value> Adapter<Data::Value>::FromValue(const Data::Value& value, AdaptErrors&) {
  return value;
}

std::optional<MapEntry> ReadMapEntry(const Data::Value& item, AdaptErrors& errors) {
  const auto* structure = item.As<Data::Structure>();
  if (!structure) return errors.Mismatch(Data::kMapEntry, item), std::nullopt;
  const MapEntry entry{structure->Find("key"), structure->Find("value")};
  if (!entry.key) errors.MissingField(Data::kMapEntry, "key", "string");
  if (!entry.value) errors.MissingField(Data::kMapEntry, "value", "a value");
  for (const Data::Field& field : structure->fields) {
    if (&field.value != entry.key && &field.value != entry.value)
      errors.ExtraField(Data::kMapEntry, field.name, field.value);
  }
  if (!entry.key || !entry.value || structure->fields.size() > 2) return std::nullopt;
  return entry;
}

Data::Value MakeMapEntry(Data::Value key, Data::Value value) {
  Data::Structure entry{std::string(Data::kMapEntry), {}};
  entry.fields.reserve(2);
  entry.Add("key", std::move(key)).Add("value", std::move(value));
  return entry;
}

}  // namespace Orbi::Bindings
