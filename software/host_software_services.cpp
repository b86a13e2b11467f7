#include "software/host_software_services.h"

#include "configuration/messages/api_errors.h"
#include "lifecycle/complete_operation.h"
#include "orbi/std/errors.h"
#include "software/helper_call.h"
#include "tesselibs/log.h"

using namespace ::LifeCycle;
using namespace ::LifeCycle::HelperOperations;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace {

/// Reads output that is "null" when there is nothing to tell.
/// @param missing  what is told then
ValuePtr ReadFound(const HelperOperation& operation, const std::string& output,
                   const ::Orbi::Data::LocalizableMessage& missing) {
  if (output == "null") {
    Log_Level(LogLevel::kCritical, "[%s] Result is null \n", operation.name);
    throw OperationError(Com::Tessel::Orbi::Std::Errors::NotFound({missing}));
  }
  return JsonToValue(output);
}

}  // namespace

namespace Com::Tessel::Ryx::Hosts::Software::RyxSvc {

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput&, AsyncResult<Info> result) {
  CompleteOperation(kGetHostBaseImage.name, result, [] {
    const auto info = ReadFound(kGetHostBaseImage, AskHelper(kGetHostBaseImage),
                                ApiMessage("com.tessel.ryx.hosts.software.ryx.notinstalled"));
    return AdaptOutput<Info>(kGetHostBaseImage, *info, MisfitError::kBare);
  });
}

}  // namespace Com::Tessel::Ryx::Hosts::Software::RyxSvc

namespace Com::Tessel::Ryx::Hosts::Software::ComponentsSvc {
namespace {

constexpr NameRefusal kComponentName{"Invalid component name specified",
                                     "com.tessel.ryx.host_settings.software.component.invalid"};

}  // namespace

void AsyncServiceImpl::Get(const ExecutionContextPtr&, const GetInput& input,
                           AsyncResult<Info> result) {
  CompleteOperation(kGetHostComponent.name, result, [&input] {
    RequireValidName(kGetHostComponent, input.component, kComponentName);
    const auto info = ReadFound(
        kGetHostComponent, AskHelper(kGetHostComponent, input.component),
        ApiMessage("com.tessel.ryx.hosts.software.component.notinstalled", {input.component}));
    return AdaptOutput<Info>(kGetHostComponent, *info);
  });
}

void AsyncServiceImpl::List(const ExecutionContextPtr&, const ListInput&,
                            AsyncResult<std::vector<Summary>> result) {
  CompleteOperation(kListHostComponents.name, result, [] {
    const auto components = JsonToValue(AskHelper(kListHostComponents));
    return AdaptOutput<std::vector<Summary>>(kListHostComponents, *components);
  });
}

}  // namespace Com::Tessel::Ryx::Hosts::Software::ComponentsSvc
