#pragma once

#include <rapidjson/document.h>

#include <mutex>
#include <string>
#include <string_view>

#include "lifecycle/access_lock.h"
#include "taskdb/task_record.h"
#include "tesselibs/json_document.h"

namespace LifeCycle {

/// The task status file under its access lock, for as long as this object lives.
///
/// The file is one JSON object (RFC 8259) with a record per task, named by the task's identifier.
/// Each operation reads the file anew. A change replaces the whole file in one step, by a rename: a
/// full disk, a crash or a kill leaves the file as it was. Records and members that the daemon does
/// not know are kept.
///
/// Operations throw TaskFileNotFoundError, JsonParseError, FileIOError or std::system_error when
/// the file cannot be read or replaced, and std::runtime_error for a change that the rules of a
/// task forbid.
class JsonTaskStore {
 public:
  /// Takes the access lock, after waiting for the threads of this process that have it.
  /// @throws AccessLockError  another process has it
  JsonTaskStore(std::string path, int retries);

  /// Makes sure that the file can be read: writes one without records when it is missing, and also
  /// when it is not what it should be. Clears away what a writer left that was killed.
  void Initialise();

  void Add(const std::string& id, const TaskDB::RecordMaker& make, TaskDB::OnDuplicate onDuplicate);
  void Change(const std::string& id, const TaskDB::RecordEdit& edit);
  void ChangeAll(const TaskDB::RecordSweep& sweep);
  /// Visits all records in the order of the file.
  void ForEach(const TaskDB::RecordVisit& visit);

 private:
  /// What the file holds. The document refers to the text.
  struct Tasks {
    explicit Tasks(const std::string& path);

    std::string text;
    rapidjson::Document document;
  };

  void Write(const Tasks& tasks, std::size_t limit = JsonDocument::kMaxDocumentSize);
  void Replace(std::string_view text);
  void RemoveLeftovers();

  const std::string path_;
  /// The lock's own retries come a second apart: too long to wait for a neighbour thread.
  const std::unique_lock<std::mutex> turn_;
  const AccessLock lock_;
};

}  // namespace LifeCycle
