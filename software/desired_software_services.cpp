#include "software/desired_software_services.h"

#include "configuration/messages/api_errors.h"
#include "lifecycle/complete_operation.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "software/helper_call.h"
#include "tesselibs/log.h"

using namespace ::LifeCycle;
using namespace ::LifeCycle::HelperOperations;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace Com::Tessel::Ryx::HostSettings::SoftwareSvc {
namespace {

constexpr NameRefusal kVersion{"Invalid RYX version specified",
                               "com.tessel.ryx.host_settings.software.ryx.invalid"};
constexpr NameRefusal kComponentName{"Invalid component name specified",
                                     "com.tessel.ryx.host_settings.software.component.invalid"};

std::string WriteSpec(const ::Orbi::Data::Value& spec) {
  try {
    return ValueToJson(spec);
  } catch (const OrbiJsonSerializationError&) {
    Log_Level(LogLevel::kCritical, "[%s] Could not serialize data.\n", kSetDesiredSoftware.name);
    throw;
  }
}

}  // namespace

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput&,
                           AsyncResult<SoftwareSpec> result) {
  CompleteOperation(kGetDesiredSoftware.name, result, [] {
    const auto spec = ReadResults(kGetDesiredSoftware, AskHelper(kGetDesiredSoftware));
    return AdaptOutput<SoftwareSpec>(kGetDesiredSoftware, *spec);
  });
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const SetInput& input,
                           AsyncResult<void> result) {
  CompleteOperation(kSetDesiredSoftware.name, result, [&input] {
    RequireValidName(kSetDesiredSoftware, input.spec.base_image.version, kVersion);
    for (const auto& [name, component] : input.spec.components)
      RequireValidName(kSetDesiredSoftware, name, kComponentName);
    const auto spec = ::Orbi::Bindings::Adapter<SoftwareSpec>::ToValue(input.spec);
    FeedHelper(kSetDesiredSoftware, WriteSpec(spec));
  });
}

}  // namespace Com::Tessel::Ryx::HostSettings::SoftwareSvc

namespace Com::Tessel::Ryx::HostSettings::Software::RyxSvc {
namespace {

constexpr NameRefusal kVersion{"Invalid RYX version specified.",
                               "com.tessel.ryx.host_settings.software.ryx.invalid"};

}  // namespace

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput&,
                           AsyncResult<std::string> result) {
  CompleteOperation(kGetDesiredVersion.name, result, [] { return AskHelper(kGetDesiredVersion); });
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const SetInput& input,
                           AsyncResult<void> result) {
  CompleteOperation(kSetDesiredVersion.name, result, [&input] {
    RequireValidName(kSetDesiredVersion, input.version, kVersion);
    OrderHelper(kSetDesiredVersion, input.version);
  });
}

}  // namespace Com::Tessel::Ryx::HostSettings::Software::RyxSvc

namespace Com::Tessel::Ryx::HostSettings::Software::ComponentsSvc {
namespace {

constexpr NameRefusal kComponentName{"Invalid value for component name supplied.",
                                     "com.tessel.ryx.host_settings.software.component.invalid"};

}  // namespace

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput& input,
                           AsyncResult<std::string> result) {
  CompleteOperation(kGetDesiredComponent.name, result, [&input] {
    RequireValidName(kGetDesiredComponent, input.component, kComponentName);
    return AskHelper(kGetDesiredComponent, input.component);
  });
}

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const SetInput& input,
                           AsyncResult<void> result) {
  CompleteOperation(kSetDesiredComponent.name, result, [&input] {
    RequireValidName(kSetDesiredComponent, input.component, kComponentName);
    if (!input.version || input.version->empty()) {
      Log_Level(LogLevel::kCritical, "[%s] No value for version supplied.\n",
                kSetDesiredComponent.name);
      throw OperationError(Com::Tessel::Orbi::Std::Errors::InvalidArgument(
          {ApiMessage("com.tessel.ryx.host_settings.software.version.form", {""})}));
    }
    // Clients rely on versions being passed on whatever characters they hold.
    OrderHelper(kSetDesiredComponent, input.component + " " + *input.version);
  });
}

void AsyncServiceImpl::Delete(const ExecutionContextPtr&, const DeleteInput& input,
                              AsyncResult<void> result) {
  CompleteOperation(kDeleteDesiredComponent.name, result, [&input] {
    RequireValidName(kDeleteDesiredComponent, input.component, kComponentName);
    OrderHelper(kDeleteDesiredComponent, input.component);
  });
}

}  // namespace Com::Tessel::Ryx::HostSettings::Software::ComponentsSvc
