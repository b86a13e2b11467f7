#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "taskdb/task_record.h"

namespace LifeCycle {

/// The helpers that an earlier run of this process started, as a new run finds them.
///
/// One that lives is left alone, and watched: if it is killed as a whole, its task is ended then.
/// What one has left that is gone is removed. Used once at start-up, by one thread.
class EarlierHelpers {
 public:
  /// Looks which tasks have documents and which have the host.
  EarlierHelpers();

  /// @param record  of a task of a helper, not ended
  /// @return whether nobody will end it any more. A record without members may be that of a helper
  ///         that has yet to begin, or else of one that could not be started, which stays as it is.
  [[nodiscard]] bool HasGone(const std::string& id, const TaskDB::Record& record);

  /// Treats those that have gone as if they lived: their tasks could not be ended now.
  void ExpectEnds();

  /// Removes what those left that have gone, and watches the others.
  void CleanUp();

 private:
  void FindDocuments();

  std::vector<std::string> applying_;                          ///< words of the apply pid file
  std::map<std::string, std::vector<std::string>> documents_;  ///< by task; may be none
  std::set<std::string> gone_;
  std::set<std::string> watched_;
};

}  // namespace LifeCycle
