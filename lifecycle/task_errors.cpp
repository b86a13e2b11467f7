#include "lifecycle/task_errors.h"

#include "configuration/messages/api_errors.h"
#include "orbi/json/writer.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace Json = Orbi::Protocol::Json;

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

TaskError MakeError(const std::string& id, ErrorKind kind) {
  namespace Errors = Com::Tessel::Orbi::Std::Errors;
  const auto& type = kind == ErrorKind::kError ? Errors::Error : Errors::InternalServerError;
  return std::make_shared<const Orbi::Data::ErrorValue>(ApiError(type, id));
}

std::string ValueToJson(const Orbi::Data::Value& value) {
  return Write<Json::JsonDirectDataSerializer>(value);
}

std::string ValueToTypedJson(const Orbi::Data::Value& value) {
  return Write<Json::JsonDataSerializer>(value);
}

}  // namespace LifeCycle
