#include "software/software_tasks.h"

#include <map>
#include <vector>

#include "configuration/messages/api_errors.h"
#include "lifecycle/complete_operation.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_errors.h"
#include "orbi/std/errors.h"
#include "software/command/json_value.h"
#include "software/command/remove_files.h"
#include "software/command/write_to_file.h"
#include "software/depot_location.h"
#include "software/helper_task.h"
#include "tesselibs/log.h"

using namespace ::LifeCycle;
using ::Com::Tessel::Ryx::HostSettings::SoftwareSpec;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContext;
using ::Orbi::Core::ExecutionContextPtr;

namespace {

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;

/// Where the specification for a task is written.
enum class SpecFile {
  kPerTask,
  kOfScans,  ///< one fixed path
};

/// A task on a software specification: "{2}" in its arguments stands for the depots, "{3}" for the
/// path of the specification.
struct SpecOperation {
  TaskOperation task;
  SpecFile file = SpecFile::kPerTask;
};

constexpr SpecOperation kApplySoftware{
    {"Apply", " software --apply --task-id {1}{2} --software-spec {3}"}};
constexpr SpecOperation kStageSoftware{
    {"Stage", " software --stage --task-id {1}{2} --software-spec {3}"}};
constexpr SpecOperation kScanSoftware{
    {"Scan", " software --scan --software-spec {3}{2} --task-id {1}"}, SpecFile::kOfScans};
constexpr SpecOperation kApplySolutions{
    {"Apply", "solutions --apply --task-id {1}{2} --software-spec {3}", ErrorKind::kError}};
constexpr SpecOperation kStageSolutions{
    {"Stage", "solutions --stage --task-id {1}{2} --software-spec {3}", ErrorKind::kError}};

constexpr TaskOperation kApplyComponents{"Apply", "components --apply --task-id {1}{2}{3}"};
constexpr TaskOperation kRemoveSolutions{"Remove", "solutions --remove --task-id {1}{2}",
                                         ErrorKind::kError};

constexpr char kInvalidInput[] = "com.tessel.ryx.orbi.invalidinput";

/// @param name  of the input field, which is told
template <typename Container>
void RequireSome(const Container& given, const char* name) {
  if (given.empty())
    throw OperationError(ApiError(Errors::InvalidArgument, kInvalidInput, {},
                                  {ApiMessage("com.tessel.ryx.orbi.input.empty", {name})}));
}

void RequireDepots(const std::vector<std::string>& depots) {
  RequireSome(depots, "depots");
  RequireNoCredentials(depots, kInvalidInput);
}

/// The option once for each value, which goes on the command line as it stands.
std::string Repeat(const char* option, const std::vector<std::string>& values) {
  std::string words;
  for (const std::string& value : values) words += option + value;
  return words;
}

std::string SpecPath(const SpecOperation& operation, const std::string& id) {
  if (operation.file == SpecFile::kOfScans) return kScanDocument;
  return kSpecDocument + id;
}

void WriteSpec(const SpecOperation& operation, const std::string& path, const SoftwareSpec& spec) {
  try {
    WriteToFile(path, ValueToJson(::Orbi::Bindings::Adapter<SoftwareSpec>::ToValue(spec)));
  } catch (const std::exception&) {
    if (operation.file == SpecFile::kOfScans)
      Log_Level(LogLevel::kCritical, "[%s]: Failed to write software spec to file.\n",
                operation.task.name);
    RemoveFiles({path});
    throw OperationError(
        ApiError(Errors::InternalServerError, "com.tessel.ryx.softwarespec.write.error"));
  }
}

std::string StartSpecTask(const ExecutionContext& context, const SpecOperation& operation,
                          const std::vector<std::string>& depots, const SoftwareSpec& spec) {
  RequireDepots(depots);
  std::string id = NewTaskId(operation.task);
  const std::string path = SpecPath(operation, id);
  const auto write = [&] { WriteSpec(operation, path, spec); };
  const std::vector<std::string> more{Repeat(" --depot ", depots), path};
  if (operation.file == SpecFile::kOfScans) {
    StartHelperTask(context, operation.task, id, more, {path}, write);
  } else {
    write();
    StartHelperTask(context, operation.task, id, more, {path});
  }
  return id;
}

std::string StartComponentsTask(const ExecutionContext& context,
                                const std::vector<std::string>& depots,
                                const std::map<std::string, std::string>& components) {
  RequireDepots(depots);
  RequireSome(components, "components");
  std::string id = NewTaskId(kApplyComponents);
  std::string words;
  for (const auto& [name, version] : components)
    words.append(" --component ").append(name).append(":").append(version);
  StartHelperTask(context, kApplyComponents, id, {Repeat(" --depot ", depots), words});
  return id;
}

std::string StartRemoval(const ExecutionContext& context,
                         const std::vector<std::string>& solutions) {
  RequireSome(solutions, "solutions");
  std::string id = NewTaskId(kRemoveSolutions);
  StartHelperTask(context, kRemoveSolutions, id, {Repeat(" --name ", solutions)});
  return id;
}

/// Completes an operation on a software specification, whichever input type it has.
template <typename Input>
void CompleteSpecTask(const ExecutionContextPtr& context, const SpecOperation& operation,
                      const Input& input, AsyncResult<std::string>& result) {
  CompleteOperation(operation.task.name, result, [&context, &operation, &input] {
    return StartSpecTask(*context, operation, input.depots, input.software_spec);
  });
}

}  // namespace

namespace Com::Tessel::Ryx::KestrelDaemon::SoftwareSvc {

void AsyncServiceImpl::Apply(const ExecutionContextPtr& context, const ApplyInput& input,
                             AsyncResult<std::string> result) {
  CompleteSpecTask(context, kApplySoftware, input, result);
}

void AsyncServiceImpl::Stage(const ExecutionContextPtr& context, const StageInput& input,
                             AsyncResult<std::string> result) {
  CompleteSpecTask(context, kStageSoftware, input, result);
}

void AsyncServiceImpl::Scan(const ExecutionContextPtr& context, const ScanInput& input,
                            AsyncResult<std::string> result) {
  CompleteSpecTask(context, kScanSoftware, input, result);
}

}  // namespace Com::Tessel::Ryx::KestrelDaemon::SoftwareSvc

namespace Com::Tessel::Ryx::KestrelDaemon::ComponentsSvc {

void AsyncServiceImpl::Apply(const ExecutionContextPtr& context, const ApplyInput& input,
                             AsyncResult<std::string> result) {
  CompleteOperation(kApplyComponents.name, result, [&context, &input] {
    return StartComponentsTask(*context, input.depots, input.components);
  });
}

}  // namespace Com::Tessel::Ryx::KestrelDaemon::ComponentsSvc

namespace Com::Tessel::Ryx::KestrelDaemon::SolutionsSvc {

void AsyncServiceImpl::Apply(const ExecutionContextPtr& context, const ApplyInput& input,
                             AsyncResult<std::string> result) {
  CompleteSpecTask(context, kApplySolutions, input, result);
}

void AsyncServiceImpl::Stage(const ExecutionContextPtr& context, const StageInput& input,
                             AsyncResult<std::string> result) {
  CompleteSpecTask(context, kStageSolutions, input, result);
}

void AsyncServiceImpl::Remove(const ExecutionContextPtr& context, const RemoveInput& input,
                              AsyncResult<std::string> result) {
  CompleteOperation(kRemoveSolutions.name, result,
                    [&context, &input] { return StartRemoval(*context, input.solutions); });
}

}  // namespace Com::Tessel::Ryx::KestrelDaemon::SolutionsSvc
