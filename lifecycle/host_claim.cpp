#include "lifecycle/host_claim.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>

#include "configuration/messages/api_errors.h"
#include "lifecycle/access_lock.h"
#include "lifecycle/log_text.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_schedular.h"
#include "lifecycle/waiting.h"
#include "orbi/std/errors.h"
#include "software/command/remove_files.h"
#include "software/command/write_to_file.h"

namespace LifeCycle {

constinit const HostMarker kTaskMarker{
    .file = kTaskSyncFile,
    .ofOwnTasks = true,
    .pause = std::chrono::seconds(1),
    .locked =
        "[_CheckTaskContention]: Lock contention in task {1}, another task is starting, "
        "{3} retries left",
    .exists =
        "[_CheckTaskContention]: Task sync file exists, another task is progress, "
        "{3} retries left",
    .unknown =
        "[_CheckTaskContention]: Failed to determine if the task sync file exists: {2}, "
        "{3} retries left",
    .unwritten =
        "[_CheckTaskContention]: Failed to write to the task sync file in task {1}: {2}, "
        "{3} retries left",
    .refused = nullptr,
    .error = "com.tessel.ryx.task.contention"};

constinit const HostMarker kApplyMarker{
    .file = kApplyPidFile,
    .ofOwnTasks = false,
    .pause = {},
    .locked = "[Set]: Lock contention; another task in progress",
    .exists = nullptr,
    .unknown = nullptr,
    .unwritten = "[Set]: Failed to write to the pid file",
    .refused = "[Set]: Another apply task possibly in progress.",
    .error = "com.tessel.ryx.lifecycle.task.contention"};

namespace {

/// One try at a claim.
class Try {
 public:
  Try(const HostMarker& marker, const std::string& taskId, int retriesLeft)
      : marker_(marker), taskId_(taskId), retriesLeft_(retriesLeft) {}

  /// @return whether the marker names the task now
  [[nodiscard]] bool Succeeds() const {
    static std::mutex mutex;  // one thread tries at a time
    const std::lock_guard turn(mutex);
    return NobodyStarts() && IsFree() && Write();
  }

  /// @return false
  bool Fail(const char* text, const char* reason = "") const {
    if (text != nullptr)
      LogText(LogLevel::kCritical, text, {taskId_, reason, std::to_string(retriesLeft_)});
    return false;
  }

 private:
  [[nodiscard]] bool NobodyStarts() const {
    try {
      // Proves that no other starter holds it at this moment, and no more than that: it is given up
      // before the marker is looked at, in the order that every starter keeps.
      const AccessLock lock(marker_.file, 0);
      return true;
    } catch (const AccessLockError&) {
      return Fail(marker_.locked);
    }
  }

  [[nodiscard]] bool IsFree() const {
    if (access(marker_.file.c_str(), F_OK) == 0) return Fail(marker_.exists);
    const int error = errno;
    if (error == ENOENT || marker_.unknown == nullptr) return true;
    return Fail(marker_.unknown, std::strerror(error));
  }

  [[nodiscard]] bool Write() const {
    try {
      WriteToFile(marker_.file, "PRECURSOR: " + taskId_);
      return true;
    } catch (const std::exception& e) {
      return Fail(marker_.unwritten, e.what());
    }
  }

  const HostMarker& marker_;
  const std::string& taskId_;
  const int retriesLeft_;
};

}  // namespace

TaskError ClaimHost(const HostMarker& marker, const std::string& taskId, int retries) {
  for (; retries >= 0; --retries) {
    if (marker.ofOwnTasks) TaskSchedular::Instance().awaitEnding();
    const Try attempt(marker, taskId, retries);
    if (attempt.Succeeds()) return {};
    attempt.Fail(marker.refused);
    if (!Wait(marker.pause)) break;
  }
  return std::make_shared<const Orbi::Data::ErrorValue>(
      ApiError(Com::Tessel::Orbi::Std::Errors::NotAllowedInCurrentState, marker.error));
}

std::vector<std::string> ClaimWords(const HostMarker& marker) {
  std::string text(4096, '\0');
  std::ifstream file(marker.file);
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

bool HasHost(const HostMarker& marker, const std::string& taskId) {
  return std::ranges::count(ClaimWords(marker), taskId) != 0;
}

int ReleaseHost(const HostMarker& marker, const std::string& taskId) {
  if (!HasHost(marker, taskId)) return ENOENT;
  return unlink(marker.file.c_str()) == 0 ? 0 : errno;
}

void FreeHost(const HostMarker& marker) { RemoveFiles({marker.file}); }

}  // namespace LifeCycle
