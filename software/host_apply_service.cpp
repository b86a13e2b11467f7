#include "software/host_apply_service.h"

#include <optional>
#include <utility>
#include <vector>

#include "configuration/messages/api_errors.h"
#include "lifecycle/complete_operation.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "software/command/remove_files.h"
#include "software/command/write_to_file.h"
#include "software/depot_location.h"
#include "software/helper_task.h"

using namespace ::LifeCycle;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace Com::Tessel::Ryx::Hosts::SettingsSvc {
namespace {

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;

/// Run as it is: the script names its interpreter itself.
constexpr TaskHelper kLifecycleHelper{"/usr/lib/tessel/lifecycle/bin/lifecyclectl.py ", kApplyTask,
                                      0};
/// "{2}" stands for the cleanup interval, "{3}" for the options that name the documents.
constexpr TaskOperation kSet{"Set",
                             "++group=kestreld-task-forks,mem=250,stats  --apply --task-id {1} "
                             "--cleanup-interval {2}{3}",
                             ErrorKind::kInternalServerError, kLifecycleHelper};
/// How long the helper keeps what earlier applies have left, in seconds.
constexpr int kCleanupInterval = 7200;

OperationError Failure(const Errors::StandardError& type, const char* id,
                       std::vector<::Orbi::Data::LocalizableMessage> further = {}) {
  return OperationError(ApiError(type, id, {}, std::move(further)));
}

void CheckInput(const SetInput& input) {
  if (!input.image && !input.configuration)
    throw Failure(Errors::InvalidArgument, "com.tessel.ryx.apply.no.input",
                  {ApiMessage("com.tessel.ryx.apply.input.wanted")});
  if (input.image && (!input.depots || input.depots->empty()))
    throw Failure(Errors::InvalidArgument, "com.tessel.ryx.apply.invalid.depots",
                  {ApiMessage("com.tessel.ryx.apply.depots.wanted")});
  if (input.depots) RequireNoCredentials(*input.depots, "com.tessel.ryx.orbi.invalidinput");
}

/// @param paths  gets the documents' paths
/// @return the options that name the documents
std::string WriteDocuments(const SetInput& input, const std::string& id,
                           std::vector<std::string>& paths) {
  std::string options;
  const auto write = [&]<typename T>(const std::optional<T>& document, const char* option,
                                     const std::string& pathBeforeId) {
    if (!document) return;
    const std::string path = pathBeforeId + id;
    WriteToFile(path, ValueToJson(::Orbi::Bindings::Adapter<T>::ToValue(*document)));
    paths.push_back(path);
    options.append(option).append(path);
  };
  try {
    write(input.depots, " --depot-doc ", kDepotsDocument);
    write(input.configuration, " --config-doc ", kConfigurationDocument);
    write(input.image, " --image-doc ", kImageDocument);
  } catch (const std::exception&) {
    RemoveFiles(paths);
    throw Failure(Errors::InternalServerError, "com.tessel.ryx.apply.unknown.error");
  }
  return options;
}

std::string StartApply(const ::Orbi::Core::ExecutionContext& context, const SetInput& input) {
  CheckInput(input);
  std::string id = NewTaskId(kSet);
  std::vector<std::string> documents;
  const std::string options = WriteDocuments(input, id, documents);
  StartHelperTask(context, kSet, id, {std::to_string(kCleanupInterval), options}, documents);
  return id;
}

}  // namespace

void AsyncServiceImpl::Set(const ExecutionContextPtr& context, const SetInput& input,
                           AsyncResult<std::string> result) {
  CompleteOperation(kSet.name, result, [&context, &input] { return StartApply(*context, input); });
}

}  // namespace Com::Tessel::Ryx::Hosts::SettingsSvc
