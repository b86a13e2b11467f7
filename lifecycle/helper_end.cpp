#include "lifecycle/helper_end.h"

#include <exception>
#include <utility>

#include "lifecycle/access_lock.h"
#include "lifecycle/paths.h"
#include "lifecycle/task_file.h"
#include "software/command/remove_files.h"
#include "tesselibs/json_document.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

// Looks, a second apart.
constexpr int kLooksUntilHelperBegins = 5;
constexpr int kMostLooks = 600;

/// Sees one task to its end after the process that was started for it has ended.
class HelperEnd {
 public:
  explicit HelperEnd(HelperTask task) : task_(std::move(task)) {}

  /// @return whether nothing is left to do
  bool operator()() {
    if (HelperLives(task_.id)) return false;
    ++looks_;
    try {
      if (!TryToEnd()) return false;
      CleanUp();
      return true;
    } catch (const std::exception& e) {
      Log_Level(LogLevel::kCritical, "[%s]: Failed to end task %s: %s\n", "EndOfHelper",
                task_.id.c_str(), e.what());
    }
    if (looks_ > kLooksUntilHelperBegins) CleanUp();
    return looks_ >= kMostLooks;
  }

 private:
  /// @return false when the helper may have yet to begin
  bool TryToEnd() const {
    bool waits = false;
    const auto sweep = [&](const std::string& id, TaskDB::Record& record,
                           TaskDB::Allocator& allocator) {
      if (id != task_.id || TaskDB::IsFinished(record)) return false;
      const bool begun = JsonDocument::FindMember(record, "status") != nullptr;
      waits = !begun && looks_ <= kLooksUntilHelperBegins;
      if (waits) return false;
      Log_Level(LogLevel::kCritical,
                "[%s]: The helper of task %s is gone without having ended it\n", "EndOfHelper",
                id.c_str());
      CleanUp();  // before the end is told: who sees that may start the next task at once
      TaskDB::FailUnexplained()(record, allocator);
      return true;
    };
    TaskFile(kTaskStatusFile, TaskFile::Initialise::kNever).ChangeAll(sweep, 0);
    return !waits;
  }

  void CleanUp() const {
    const bool hasHost = HasHost(task_.marker, task_.id);
    for (const std::string& document : task_.documents) {
      // One that is not named after the task may be the next task's already.
      if (hasHost || document.ends_with(task_.id)) RemoveFiles({document});
    }
    ReleaseHost(task_.marker, task_.id);
  }

  HelperTask task_;
  int looks_ = 0;
};

}  // namespace

std::string HelperLockPath(const std::string& taskId) { return kTaskSyncFile + "-" + taskId; }

bool HelperLives(const std::string& taskId) { return AccessLock::IsHeld(HelperLockPath(taskId)); }

PcoreCtl::EndObserver EndOfHelper(HelperTask task) { return HelperEnd(std::move(task)); }

}  // namespace LifeCycle
