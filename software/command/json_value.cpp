#include "software/command/json_value.h"

#include <utility>

#include "orbi/json/reader.h"
#include "tesselibs/log.h"

namespace LifeCycle {

namespace {

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

}  // namespace

ValuePtr JsonToValue(const std::string& json) {
  return Read<Orbi::Protocol::Json::JsonDirectDataDeserializer>(json);
}

ValuePtr TypedJsonToValue(const std::string& json) {
  return Read<Orbi::Protocol::Json::JsonDataDeserializer>(json);
}

}  // namespace LifeCycle
