#include "configuration/key_tasks.h"

#include <utility>

#include "configmanager/config_manager.h"
#include "configuration/messages/api_errors.h"
#include "configuration/messages/config_manager_messages.h"
#include "configuration/violation_messages.h"
#include "orbi/json/writer.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

namespace Errors = Com::Tessel::Orbi::Std::Errors;
using Orbi::Data::ErrorValue;
using Orbi::Data::Value;
using Orbi::Protocol::Json::JsonDirectDataSerializer;
using Orbi::Protocol::Json::Secrets;

constexpr char kInvalidArgument[] =
    "com.tessel.ryx.configuration.components.groups.keys.invalidargument.error";

Value Nothing() { return {}; }

[[noreturn]] void RefuseValue(const char* why) {
  throw OperationError(
      ApiError(Errors::InvalidArgument, kInvalidArgument, {}, {ConfigManagerMessage(why)}));
}

}  // namespace

ErrorValue KeyError(const std::exception& failure, const char* id) {
  if (dynamic_cast<const RyxConfigManager::InvalidArgumentException*>(&failure) != nullptr)
    return ApiError(Errors::InvalidArgument, kInvalidArgument, {}, DetailsOf(failure));
  return ApiError(Errors::Error, id, {}, DetailsOf(failure));
}

SetTask::SetTask(std::string taskId, RyxConfigStore::KeyAddress address,
                 Orbi::Data::Structure value)
    : ConfigManagerTaskImpl("Set", std::move(taskId)),
      address_(std::move(address)),
      value_(std::move(value)) {}

ConfigManagerTaskImpl::Conversion SetTask::Work() {
  const std::string value = ValueToJson(value_);
  if (value == "{}") {
    Log_Level(LogLevel::kCritical, "[%s] Empty configuration cannot be set\n", "Run");
    RefuseValue("com.tessel.ryx.settings.value.empty");
  }
  // Secrets are blanked in the text: an empty one would be set in the place of what was asked for.
  if (JsonDirectDataSerializer(Secrets::kWritten).Serialize(value_) != value) {
    Log_Level(LogLevel::kCritical, "[%s] Secrets cannot be set\n", "Run");
    RefuseValue("com.tessel.ryx.settings.value.secret");
  }
  const auto task = MakeTaskInput();
  RyxConfigManager::SetConfig(address_.component, address_.group, address_.key, value, &task);
  return Nothing;
}

ErrorValue SetTask::Translate(const std::exception& failure) const {
  Log_Level(LogLevel::kCritical, "[%s] Failed to set configuration: %s\n", "Run", failure.what());
  return KeyError(failure, "com.tessel.ryx.configuration.components.groups.keys.set.config.error");
}

DeleteTask::DeleteTask(std::string taskId, RyxConfigStore::KeyAddress address)
    : ConfigManagerTaskImpl("Delete", std::move(taskId)), address_(std::move(address)) {}

ConfigManagerTaskImpl::Conversion DeleteTask::Work() {
  const auto task = MakeTaskInput();
  RyxConfigManager::DeleteConfig(address_.component, address_.group, address_.key, &task);
  return Nothing;
}

ErrorValue DeleteTask::Translate(const std::exception& failure) const {
  Log_Level(LogLevel::kCritical, "[%s] Failed to Delete configuration: %s\n", "Run",
            failure.what());
  return KeyError(failure,
                  "com.tessel.ryx.configuration.components.groups.keys.delete.config.error");
}

}  // namespace LifeCycle
