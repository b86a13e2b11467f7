#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "lifecycle/access_lock.h"
#include "lifecycle/status_text.h"
#include "taskdb/task_record.h"
#include "tesselibs/json_document.h"

namespace LifeCycle {

/// The task status file, each operation under its access lock: a change from before it reads until
/// the file is replaced, a visit for as long as it reads, and not while it parses and visits.
///
/// The file is one JSON object (RFC 8259) with a record per task, named by the task's identifier.
/// Each operation reads the file anew. A change replaces the whole file in one step, by a rename: a
/// full disk, a crash or a kill leaves the file as it was. Records and members that the daemon does
/// not know are kept. May be used from any thread; nothing is kept between operations.
///
/// A file that has no room for a change, that is larger than can be read or that holds no records
/// is set aside, under its name with the time behind it, which is told at level 2. The one that
/// takes its place begins with the records that are still asked for (TextToGoOn).
///
/// Operations throw AccessLockError when the lock cannot be had (access_lock.h),
/// TaskFileNotFoundError, JsonParseError, FileIOError or std::system_error when the file cannot be
/// read or replaced, and std::runtime_error for a change that the rules of a task forbid; a visit
/// also UnusableTaskFileError.
class JsonTaskStore {
 public:
  /// @param retries  of the access lock
  /// @param largest  no change makes the file larger, and no larger one is read, in bytes
  JsonTaskStore(std::string path, int retries, std::size_t largest = JsonDocument::kMaxDocumentSize)
      : path_(std::move(path)), retries_(retries), largest_(largest) {}

  /// Makes sure that the file can be read: writes one without records when it is missing, and also
  /// when it does not parse. Clears away what a writer left that was killed.
  void Initialise();

  void Add(const std::string& id, const TaskDB::RecordMaker& make, TaskDB::OnDuplicate onDuplicate);
  void Change(const std::string& id, const TaskDB::RecordEdit& edit);
  void ChangeAll(const TaskDB::RecordSweep& sweep);
  /// Visits all records in the order of the file.
  void ForEach(const TaskDB::RecordVisit& visit) const;
  /// The same: whoever asks for one record is told of all that there are.
  void Visit(const std::string&, const TaskDB::RecordVisit& visit) const { ForEach(visit); }

 private:
  [[nodiscard]] AccessLock Lock() const;
  void ReadOrMakeAnew() const;
  [[nodiscard]] StatusText ReadOrSetAside() const;
  [[nodiscard]] std::string RecordsOfLargeFile() const;
  void Write(const StatusText& tasks, std::optional<std::size_t> changed,
             std::size_t roomLeft = 0) const;
  void Replace(std::string_view text) const;
  void SetAsideFor(std::string_view text, const std::string& reason) const;
  [[nodiscard]] std::string WriteSuccessor(std::string_view text) const;
  void TakePlace(const std::string& successor) const;
  void RemoveLeftovers() const;

  const std::string path_;
  const int retries_;
  const std::size_t largest_;
};

}  // namespace LifeCycle
