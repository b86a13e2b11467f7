#include "lifecycle/task_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <utility>
#include <vector>

#include "lifecycle/access_lock.h"
#include "lifecycle/json_task_store.h"
#include "lifecycle/set_aside.h"
#include "lifecycle/task_file_errors.h"
#include "tesselibs/feature_state.h"
#include "tesselibs/log.h"

namespace LifeCycle {
namespace {

/// A task's place in the order of identifiers. Nearly all comparisons are settled by the first
/// bytes, without a look at the identifier's own memory.
class Place {
 public:
  explicit Place(TaskDB::TaskInfo& task) : task_(&task) {
    for (std::size_t i = 0; i < sizeof firstBytes_; ++i)
      firstBytes_ = firstBytes_ << 8 | (i < task.id.size() ? std::uint8_t(task.id[i]) : 0U);
  }
  [[nodiscard]] TaskDB::TaskInfo& task() const { return *task_; }

  bool operator<(const Place& other) const {
    if (firstBytes_ != other.firstBytes_) return firstBytes_ < other.firstBytes_;
    return task_->id < other.task_->id;
  }

 private:
  std::uint64_t firstBytes_ = 0;
  TaskDB::TaskInfo* task_;
};

/// Sorted first and then appended: to look for each one's place in a map of thousands takes as long
/// as to parse the file. Of two tasks with one identifier the first is kept.
std::map<std::string, TaskDB::TaskInfo> ById(std::deque<TaskDB::TaskInfo> tasks) {
  std::vector<Place> places(tasks.begin(), tasks.end());
  std::stable_sort(places.begin(), places.end());
  std::map<std::string, TaskDB::TaskInfo> byId;
  for (const Place& place : places)
    byId.emplace_hint(byId.end(), place.task().id, std::move(place.task()));
  return byId;
}

bool InDatabase() { return FeatureState_IsEnabled(Feature::kTaskDatabase); }

}  // namespace

TaskFile::TaskFile(std::string path, Initialise initialise)
    : path_(std::move(path)), database_(TaskDB::TaskManager::FromPath(path_ + ".db")) {
  const std::string& file = InDatabase() ? database_->path() : path_;
  const bool missing = access(file.c_str(), F_OK) != 0;
  if (initialise == Initialise::kNever || (initialise == Initialise::kWhenMissing && !missing))
    return;
  if (InDatabase())
    WithDatabase([this] { InitialiseDatabase(); });
  else
    JsonTaskStore(path_, 0).Initialise();
}

void TaskFile::InitialiseDatabase() const {
  try {
    database_->Create();
    return;
  } catch (const TaskDB::CorruptError& e) {
    Log_Level(LogLevel::kError, "Failed to parse task file %s: %s, re-creating the file...\n",
              database_->path().c_str(), e.what());
  }
  try {
    const std::string aside = NameToSetAside(database_->path());
    database_->Recreate(aside);
    Log_Level(LogLevel::kCritical, "Task file %s does not parse, set aside as %s\n",
              database_->path().c_str(), aside.c_str());
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "Failed to initiate task file %s: %s\n",
              database_->path().c_str(), e.what());
    throw;
  }
}

/// Runs the operation on the store that the feature switch selects at this moment.
template <typename Operation>
void TaskFile::WithStore(int retries, const Operation& operation) const {
  if (InDatabase()) {
    WithDatabase([&] { operation(*database_); });
  } else {
    JsonTaskStore store(path_, retries);
    operation(store);
  }
}

/// Runs the operation and tells the database's errors as the task status file's.
template <typename Operation>
void TaskFile::WithDatabase(const Operation& operation) const {
  try {
    operation();
  } catch (const TaskDB::MissingError&) {
    throw TaskFileNotFoundError(database_->path(), ENOENT);
  } catch (const TaskDB::CorruptError& e) {
    throw JsonParseError(e.what());
  } catch (const TaskDB::BusyError&) {
    throw AccessLockError(EBUSY);
  }
}

void TaskFile::AddTask(const std::string& id, const std::string& operation, int retries,
                       const TaskDB::Caller& caller) {
  WithStore(retries, [&](auto& store) {
    store.Add(id, TaskDB::PendingRecord(operation, caller), TaskDB::OnDuplicate::kRefuse);
  });
}

void TaskFile::AddEmptyTask(const std::string& id, int retries) {
  WithStore(retries, [&](auto& store) {
    store.Add(id, TaskDB::EmptyRecord(), TaskDB::OnDuplicate::kReplace);
  });
}

void TaskFile::StartTask(const std::string& id, int retries) {
  Change(id, TaskDB::Start(id), retries);
}

void TaskFile::SetProgress(const std::string& id, unsigned completed, int retries) {
  Change(id, TaskDB::SetProgress(id, completed), retries);
}

void TaskFile::SucceedTask(const std::string& id, const std::string& result, int retries) {
  Change(id, TaskDB::Succeed(result), retries);
}

void TaskFile::FailTask(const std::string& id, const std::string& exception, int retries) {
  Change(id, TaskDB::Fail(exception), retries);
}

void TaskFile::Change(const std::string& id, const TaskDB::RecordEdit& edit, int retries) {
  WithStore(retries, [&](auto& store) { store.Change(id, edit); });
}

void TaskFile::ChangeAll(const TaskDB::RecordSweep& sweep, int retries) {
  WithStore(retries, [&](auto& store) { store.ChangeAll(sweep); });
}

namespace {

TaskDB::TaskInfo ReadTask(const std::string& id, const TaskDB::Record& record) {
  Log_Level(LogLevel::kNotice, "Process task %s\n", id.c_str());
  try {
    TaskDB::TaskInfo task;
    TaskDB::ReadRecord(id, record, task);
    return task;
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "[%s]: %s\n", "GetTasks", e.what());
    throw;
  }
}

}  // namespace

std::map<std::string, TaskDB::TaskInfo> TaskFile::GetTasks(int retries) const {
  std::deque<TaskDB::TaskInfo> tasks;
  WithStore(retries, [&](auto& store) {
    store.ForEach([&](const std::string& id, const TaskDB::Record& record) {
      tasks.push_back(ReadTask(id, record));
    });
  });
  return ById(std::move(tasks));
}

std::optional<TaskDB::TaskInfo> TaskFile::GetTask(const std::string& id, int retries) const {
  std::optional<TaskDB::TaskInfo> found;
  WithStore(retries, [&](auto& store) {
    store.Visit(id, [&](const std::string& name, const TaskDB::Record& record) {
      TaskDB::TaskInfo task = ReadTask(name, record);
      if (!found && name == id) found = std::move(task);
    });
  });
  return found;
}

}  // namespace LifeCycle
