#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "sqlite/database_file.h"
#include "taskdb/task_record.h"

namespace SQLite {
class Database;
}

namespace TaskDB {

/// There is no database at the path.
class MissingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What is at the path is no database, or the record that is asked for is no JSON.
class CorruptError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Another process kept the database to itself for more than five seconds.
class BusyError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Task records in an SQLite database: one row per task in the table `tasks` (`id`, `record`), the
/// record as JSON text. Helper processes use the same database.
///
/// Handles are shared: there is one per path while anybody holds it. It connects on first use, and
/// anew when the file at the path is no longer the one that it knows. May be used from any thread.
///
/// A record that cannot be read is told at level 3 and left out, unless it is the one asked for.
/// Every operation throws the errors above, std::runtime_error when a rule of the records is
/// violated, and SQLite::Exception for any other failure of the database. A change that throws has
/// changed nothing.
class TaskManager {
 public:
  [[nodiscard]] static std::shared_ptr<TaskManager> FromPath(const std::string& path);

  TaskManager(const TaskManager&) = delete;
  TaskManager& operator=(const TaskManager&) = delete;
  ~TaskManager();

  [[nodiscard]] const std::string& path() const { return file_.path(); }

  /// Creates the database unless there is one, and checks that it is whole.
  void Create();
  /// Gives the database another name and creates it anew.
  /// @throws std::system_error  it cannot be renamed
  void Recreate(const std::string& keptAs);

  void Add(const std::string& id, const RecordMaker& make, OnDuplicate onDuplicate);
  void Change(const std::string& id, const RecordEdit& edit);
  void ChangeAll(const RecordSweep& sweep);
  /// Visits the record of that identifier, if there is one.
  void Visit(const std::string& id, const RecordVisit& visit);
  /// Visits all records in the order in which they were added.
  void ForEach(const RecordVisit& visit);

 private:
  using Operation = std::function<void(SQLite::Database&)>;
  using Missing = Sqlite::DatabaseFile::Missing;

  explicit TaskManager(std::string path);

  void Run(Missing missing, const Operation& operation);
  void RunTransaction(const Operation& operation);

  std::mutex mutex_;  ///< guards the file, and is held while the database works
  Sqlite::DatabaseFile file_;
};

}  // namespace TaskDB
