#include "software/host_apply_service.h"

#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <vector>

#include "configuration/messages/api_errors.h"
#include "lifecycle/access_lock.h"
#include "lifecycle/complete_operation.h"
#include "lifecycle/helper_end.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "orbi/data/message.h"
#include "orbi/std/errors.h"
#include "pcore/pcore_ctl.h"
#include "software/command/json_value.h"
#include "software/command/remove_files.h"
#include "software/command/write_to_file.h"
#include "software/helper_task.h"
#include "tesselibs/log.h"

using namespace ::LifeCycle;
using ::Orbi::Core::AsyncResult;
using ::Orbi::Core::ExecutionContextPtr;

namespace Com::Tessel::Ryx::Hosts::SettingsSvc {
namespace {

namespace Errors = ::Com::Tessel::Orbi::Std::Errors;

/// Run as it is: the script names its interpreter itself.
constexpr const char* kLifecycleHelper = "/usr/lib/tessel/lifecycle/bin/lifecyclectl.py ";
/// "{2}" stands for the cleanup interval, "{3}" for the options that name the documents.
constexpr TaskOperation kSet{"Set",
                             "++group=kestreld-task-forks,mem=250,stats  --apply --task-id {1} "
                             "--cleanup-interval {2}{3}"};
/// How long the helper keeps what earlier applies have left, in seconds.
constexpr int kCleanupInterval = 7200;
constexpr int kStatusFileRetries = 5;

OperationError Failure(const Errors::StandardError& type, const char* id) {
  return OperationError(ApiError(type, id));
}

OperationError UnknownFailure() {
  return Failure(Errors::InternalServerError, "com.tessel.ryx.apply.unknown.error");
}

/// Files that go with this object, until the helper runs, whose own they then are.
class FilesForHelper {
 public:
  FilesForHelper() = default;
  FilesForHelper(const FilesForHelper&) = delete;
  FilesForHelper& operator=(const FilesForHelper&) = delete;
  ~FilesForHelper() { RemoveFiles(paths_); }

  /// @throws FileIOError
  void Write(const std::string& path, const std::string& content) {
    WriteToFile(path, content);
    paths_.push_back(path);
  }
  void HandOver() { paths_.clear(); }
  [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }

 private:
  std::vector<std::string> paths_;
};

void CheckInput(const SetInput& input) {
  if (!input.image && !input.configuration)
    throw Failure(Errors::InvalidArgument, "com.tessel.ryx.apply.no.input");
  if (input.image && (!input.depots || input.depots->empty()))
    throw Failure(Errors::InvalidArgument, "com.tessel.ryx.apply.invalid.depots");
}

/// @return the options that name the documents
std::string WriteDocuments(const SetInput& input, const std::string& id, FilesForHelper& files) {
  std::string options;
  const auto write = [&]<typename T>(const std::optional<T>& document, const char* option,
                                     const std::string& pathBeforeId) {
    if (!document) return;
    const std::string path = pathBeforeId + id;
    files.Write(path, ValueToJson(::Orbi::Bindings::Adapter<T>::ToValue(*document)));
    options.append(option).append(path);
  };
  try {
    write(input.depots, " --depot-doc ", kDepotsDocument);
    write(input.configuration, " --config-doc ", kConfigurationDocument);
    write(input.image, " --image-doc ", kImageDocument);
  } catch (const std::exception&) {
    throw UnknownFailure();
  }
  return options;
}

/// @return whether the apply pid file names the task now; otherwise another apply has the host
bool TryToClaimHost(const std::string& id, FilesForHelper& files) {
  try {
    // Proves that no other starter holds it at this moment, and no more than that, as for the task
    // sync file: it is given up before the apply pid file is looked at.
    const AccessLock lock(kApplyPidFile, 0);
  } catch (const AccessLockError&) {
    Log_Level(LogLevel::kCritical, "[%s]: Lock contention; another task in progress\n", kSet.name);
    return false;
  }
  if (access(kApplyPidFile.c_str(), F_OK) == 0) return false;
  try {
    files.Write(kApplyPidFile, "PRECURSOR: " + id);
    return true;
  } catch (const std::exception&) {
    // Told to the client as if another apply had the host, on purpose: it is to come again later.
    Log_Level(LogLevel::kCritical, "[%s]: Failed to write to the pid file\n", kSet.name);
    return false;
  }
}

void ClaimHost(const std::string& id, FilesForHelper& files) {
  if (TryToClaimHost(id, files)) return;
  Log_Level(LogLevel::kCritical, "[%s]: Another apply task possibly in progress.\n", kSet.name);
  throw Failure(Errors::NotAllowedInCurrentState, "com.tessel.ryx.lifecycle.task.contention");
}

/// Records the task, without members: the helper fills them in.
void RecordTask(const std::string& id) {
  Log_Level(LogLevel::kNotice, "[%s]: Creating task: %s\n", kSet.name, id.c_str());
  try {
    TaskFile(kTaskStatusFile, TaskFile::Initialise::kWhenMissing)
        .AddEmptyTask(id, kStatusFileRetries);
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s]: %s\n", kSet.name, e.what());
    throw UnknownFailure();
  }
}

void StartHelper(const std::string& command, const HelperTask& task) {
  Log_Level(LogLevel::kNotice, "[%s]: Running task: %s\n", kSet.name, command.c_str());
  try {
    const int result =
        PcoreCtl::Util::PcoreCtl_Daemon(command, false, false, true, true, EndOfHelper(task));
    if (result != 0)
      throw std::runtime_error("PcoreCtl_Daemon() returned " + std::to_string(result));
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s] Failed to exec updater: %s\n", kSet.name, e.what());
    throw UnknownFailure();
  }
}

std::string StartApply(const SetInput& input) {
  CheckInput(input);
  std::string id = NewTaskId(kSet);
  FilesForHelper documents;
  const std::string options = WriteDocuments(input, id, documents);
  FilesForHelper pidFile;
  ClaimHost(id, pidFile);
  RecordTask(id);
  StartHelper(
      kLifecycleHelper + ::Orbi::Data::FillPlaceholders(
                             kSet.arguments, {id, std::to_string(kCleanupInterval), options}),
      {id, kApplyPidFile, documents.paths()});
  pidFile.HandOver();
  documents.HandOver();
  return id;
}

}  // namespace

void AsyncServiceImpl::Set(const ExecutionContextPtr&, const SetInput& input,
                           AsyncResult<std::string> result) {
  CompleteOperation(kSet.name, result, [&input] { return StartApply(input); });
}

}  // namespace Com::Tessel::Ryx::Hosts::SettingsSvc
