#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TaskDB {

/// The read form of one task record. A text that the record does not have is empty.
struct TaskInfo {
  std::string id;
  std::string operation;
  std::string user;
  std::string status;  ///< "PENDING", "RUNNING", "SUCCEEDED", "FAILED", or whatever was written
  std::string reserved;
  std::string startTime;  ///< UTC
  std::string endTime;    ///< UTC
  std::int32_t completed = 0;
  std::int32_t total = 0;
  std::string result;                  ///< a data value in JSON
  std::string exception;               ///< an error value in JSON
  std::string errorId;                 ///< message identifier that a helper reported
  std::vector<std::string> errorArgs;  ///< arguments of that message
};

}  // namespace TaskDB
