#include "software/depots_service.h"

#include "lifecycle/complete_operation.h"
#include "software/command/json_value.h"
#include "software/depot_location.h"
#include "software/helper_call.h"

namespace Com::Tessel::Ryx::HostSettings::DepotsSvc {

using namespace ::LifeCycle;
using namespace ::LifeCycle::HelperOperations;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace {

constexpr NameRefusal kDepotName{"Invalid name specified. Unsafe to continue.",
                                 "com.tessel.ryx.host_settings.depot.name.invalid"};

}  // namespace

void AsyncServiceImpl::List(const ExecutionContextPtr&, const ListInput&,
                            AsyncResult<std::vector<DepotSpec>> result) {
  CompleteOperation(kListDepots.name, result, [] {
    const auto depots = ReadResults(kListDepots, AskHelper(kListDepots));
    return AdaptOutput<std::vector<DepotSpec>>(kListDepots, *depots);
  });
}

void AsyncServiceImpl::Create(const ExecutionContextPtr&, const CreateInput& input,
                              AsyncResult<void> result) {
  CompleteOperation(kCreateDepot.name, result, [&input] {
    RequireNoCredentials({input.spec.url}, "com.tessel.ryx.host_settings.depot.connect.error");
    RequireValidName(kCreateDepot, input.spec.name, kDepotName);
    const auto spec = ::Orbi::Bindings::Adapter<CreateSpec>::ToValue(input.spec);
    FeedHelper(kCreateDepot, ValueToJson(spec));
  });
}

void AsyncServiceImpl::Delete(const ExecutionContextPtr&, const DeleteInput& input,
                              AsyncResult<void> result) {
  CompleteOperation(kDeleteDepot.name, result, [&input] {
    RequireValidName(kDeleteDepot, input.depot, kDepotName);
    OrderHelper(kDeleteDepot, input.depot);
  });
}

}  // namespace Com::Tessel::Ryx::HostSettings::DepotsSvc
