#pragma once

#include <rapidjson/document.h>

#include <functional>
#include <string>

#include "taskdb/task_info.h"

/// The rules of a task record, whatever it is kept in: a JSON object with the members "status",
/// "operation", "user", "peer", "progress", "startTime", "endTime", "result", "exception" and
/// "error".
///
/// A task goes from PENDING over RUNNING to SUCCEEDED or FAILED, and can end from any state.
/// Members that are not of this list belong to whoever wrote them and are never touched. A change
/// that the rules forbid is logged at level 2 and leaves the record as it was.
namespace TaskDB {

using Record = rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

/// Makes the record of a new task.
using RecordMaker = std::function<Record(Allocator&)>;

/// Changes one record in place.
/// @throws std::runtime_error when the rules forbid it
using RecordEdit = std::function<void(Record&, Allocator&)>;

/// Changes the record where it wants to, and returns whether it did.
using RecordSweep = std::function<bool(const std::string& id, Record&, Allocator&)>;

using RecordVisit = std::function<void(const std::string& id, const Record&)>;

/// What happens when a task is added whose identifier exists.
enum class OnDuplicate { kReplace, kRefuse };

/// On whose behalf a task runs.
struct Caller {
  std::string user;
  std::string peer;  ///< where the call came from
};

/// PENDING, with no progress.
[[nodiscard]] RecordMaker PendingRecord(const std::string& operation, const Caller& caller);
/// An object without members, for a task whose record somebody else fills.
[[nodiscard]] RecordMaker EmptyRecord();

/// PENDING to RUNNING; notes the time.
[[nodiscard]] RecordEdit Start(const std::string& id);
/// Sets the progress of a RUNNING task.
/// @param completed  percent
/// @throws std::runtime_error  at once, when `completed` is above 100
[[nodiscard]] RecordEdit SetProgress(const std::string& id, unsigned completed);
/// SUCCEEDED with full progress; notes the time, and the result unless it is empty.
[[nodiscard]] RecordEdit Succeed(const std::string& result);
/// FAILED; notes the time, and the exception unless it is empty.
[[nodiscard]] RecordEdit Fail(const std::string& exception);
/// FAILED for a reason that nobody told: with a helper's error that says so, and with what the
/// record of an end must have when the task never began.
[[nodiscard]] RecordEdit FailUnexplained();

/// Refuse a change for a reason that lies in the set of records.
[[noreturn]] void RefuseDuplicate(const std::string& id);
[[noreturn]] void RefuseMissing(const std::string& id);

/// @return whether the record says that its task has ended
[[nodiscard]] bool IsFinished(const Record& record);

/// Fills in the read form of a record, given an empty one. What is missing or of a wrong type is
/// left empty, and logged at level 2 where a reader would miss it; no record is refused.
void ReadRecord(const std::string& id, const Record& record, TaskInfo& info);

}  // namespace TaskDB
