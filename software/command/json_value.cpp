#include "software/command/json_value.h"

#include <utility>

#include "orbi/json/reader.h"
#include "orbi/json/writer.h"
#include "tesselibs/log.h"

namespace LifeCycle {

namespace {

namespace Json = Orbi::Protocol::Json;

template <typename Deserializer>
ValuePtr Read(const std::string& json) {
  Orbi::Data::ErrorValue error;
  auto value = Deserializer().Deserialize(json, error);
  if (!value) {
    Log_Level(LogLevel::kCritical, "Deserialize from JSON failed: %s\n", error.ToText().c_str());
    throw OrbiJsonSerializationError();
  }
  return std::make_shared<const Orbi::Data::Value>(*std::move(value));
}

template <typename Serializer>
std::string Write(const Orbi::Data::Value& value) {
  try {
    return Serializer(Json::Secrets::kBlanked).Serialize(value);
  } catch (const Json::JsonSerializationError& e) {
    Log_Level(LogLevel::kCritical, "Serialize to JSON failed: %s\n", e.what());
    throw OrbiJsonSerializationError();
  }
}

}  // namespace

ValuePtr JsonToValue(const std::string& json) {
  return Read<Json::JsonDirectDataDeserializer>(json);
}

ValuePtr TypedJsonToValue(const std::string& json) {
  return Read<Json::JsonDataDeserializer>(json);
}

std::string ValueToJson(const Orbi::Data::Value& value) {
  return Write<Json::JsonDirectDataSerializer>(value);
}

std::string ValueToTypedJson(const Orbi::Data::Value& value) {
  return Write<Json::JsonDataSerializer>(value);
}

}  // namespace LifeCycle
