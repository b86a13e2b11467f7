#include "configuration/keys_service.h"

#include <memory>

#include "configmanager/config_manager.h"
#include "configuration/key_tasks.h"
#include "configuration/messages/api_errors.h"
#include "configuration/start_task.h"
#include "lifecycle/complete_operation.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"

namespace Com::Tessel::Ryx::Configuration::Components::Groups::KeysSvc {
namespace {

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;
using ::LifeCycle::OperationError;
using ::Orbi::Bindings::DynamicStructure;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

constexpr char kGetError[] = "com.tessel.ryx.configuration.components.groups.keys.get.config.error";

std::string ReadKey(const GetInput& input) {
  try {
    return RyxConfigManager::GetCurrentConfig(input.component, input.group, input.key);
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s] Failed to fetch configuration: %s\n", "Get", e.what());
    throw OperationError(::LifeCycle::KeyError(e, kGetError));
  }
}

std::shared_ptr<const ::Orbi::Data::Value> Parse(const std::string& json) {
  try {
    return ::LifeCycle::JsonToValue(json);
  } catch (const ::LifeCycle::OrbiJsonSerializationError&) {
    Log_Level(LogLevel::kCritical, "[%s] Couldn't de-serialize results.\n", "Get");
    throw OperationError(::LifeCycle::ApiError(Errors::Error, kGetError));
  }
}

std::optional<DynamicStructure> Get(const GetInput& input) {
  const std::string json = ReadKey(input);
  if (json.empty()) {
    Log_Level(LogLevel::kNotice, "[%s] User config not found.\n", "Get");
    return std::nullopt;
  }
  const auto value = Parse(json);
  const auto* fields = value->As<::Orbi::Data::Structure>();
  if (fields == nullptr) {
    Log_Level(LogLevel::kCritical, "[%s] Failed to return the configuration\n", "Get");
    throw OperationError(::LifeCycle::ApiError(Errors::Error, kGetError));
  }
  DynamicStructure structure = *fields;
  structure.name = "emptyDynStr";
  return structure;
}

}  // namespace

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput& input,
                           AsyncResult<std::optional<DynamicStructure>> result) {
  ::LifeCycle::CompleteOperation("Get", result, [&input] { return KeysSvc::Get(input); });
}

void AsyncServiceImpl::Set(const ExecutionContextPtr& context, const SetInput& input,
                           AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::SetTask>(
      context, "Set", SetMethod::taskMethodName, result,
      RyxConfigStore::KeyAddress{input.component, input.group, input.key}, input.value);
}

void AsyncServiceImpl::Delete(const ExecutionContextPtr& context, const DeleteInput& input,
                              AsyncResult<std::string> result) {
  ::LifeCycle::StartTask<::LifeCycle::DeleteTask>(
      context, "Delete", DeleteMethod::taskMethodName, result,
      RyxConfigStore::KeyAddress{input.component, input.group, input.key});
}

}  // namespace Com::Tessel::Ryx::Configuration::Components::Groups::KeysSvc
