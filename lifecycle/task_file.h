#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "taskdb/task_info.h"
#include "taskdb/task_manager.h"
#include "taskdb/task_record.h"

namespace LifeCycle {

/// How often those who use the records try to get the access lock, but for who initialises them and
/// who comes again anyway.
inline constexpr int kStatusFileRetries = 5;

/// The records of all tasks, as the daemon's own tasks and the tasks service use them.
///
/// Records are kept in the task status file (JsonTaskStore); while the feature switch
/// "task_database" is on, in the task database at the path with ".db" appended
/// (TaskDB::TaskManager) instead, with the same rules and the same errors. Nothing is cached: every
/// call sees what helper processes wrote. May be used from any thread.
///
/// Operations take the retry count of the access lock. They throw AccessLockError when the records
/// are in use elsewhere, TaskFileNotFoundError when there are none, JsonParseError when they cannot
/// be read, another exception when they cannot be written, and std::runtime_error for a change that
/// the rules of a task forbid. A change that throws has changed nothing.
class TaskFile {
 public:
  /// Whether opening makes an empty set of records.
  enum class Initialise {
    kAlways,       ///< when there is none, and also when it cannot be read: at start-up
    kWhenMissing,  ///< when there is none: to create a task
    kNever,        ///< a missing one stays missing: to read
  };

  /// Initialising takes the access lock without retries.
  TaskFile(std::string path, Initialise initialise);

  /// Adds a PENDING record. Refused when there is one of that identifier.
  void AddTask(const std::string& id, const std::string& operation, int retries,
               const TaskDB::Caller& caller = {});
  /// Adds a record without members, for a helper process to fill.
  void AddEmptyTask(const std::string& id, int retries);
  /// PENDING to RUNNING.
  void StartTask(const std::string& id, int retries);
  /// Only while RUNNING.
  /// @param completed  percent; above 100 is refused
  void SetProgress(const std::string& id, unsigned completed, int retries);
  /// To SUCCEEDED, from any state.
  /// @param result  a data value in JSON, or nothing
  void SucceedTask(const std::string& id, const std::string& result, int retries);
  /// To FAILED, from any state; progress stays as it is.
  /// @param exception  an error value in JSON, or nothing
  void FailTask(const std::string& id, const std::string& exception, int retries);

  /// Offers every record to `sweep`; what it changes is written in one step.
  void ChangeAll(const TaskDB::RecordSweep& sweep, int retries);

  /// Reads all records, by identifier.
  [[nodiscard]] std::map<std::string, TaskDB::TaskInfo> GetTasks(int retries) const;
  /// Reads one record, and of the task status file all: tells the same of each as GetTasks.
  /// @return nothing when there is none of that identifier
  [[nodiscard]] std::optional<TaskDB::TaskInfo> GetTask(const std::string& id, int retries) const;

 private:
  template <typename Operation>
  void WithStore(int retries, const Operation& operation) const;
  template <typename Operation>
  void WithDatabase(const Operation& operation) const;

  void Change(const std::string& id, const TaskDB::RecordEdit& edit, int retries);
  void InitialiseDatabase() const;

  std::string path_;
  std::shared_ptr<TaskDB::TaskManager> database_;
};

}  // namespace LifeCycle
