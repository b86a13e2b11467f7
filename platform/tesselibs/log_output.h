#pragma once

#include <ctime>
#include <string_view>

#include "tesselibs/log_level.h"

/// One line on its way to an output, without its line end.
struct LogLine {
  std::time_t when;
  LogLevel level;
  std::string_view text;
};

/// A place where log lines go. The log's writer thread is the only caller of Write.
class LogOutput {
 public:
  enum class Result {
    kWritten,
    kBusy,  ///< not now; the same line is offered again
    kLost,  ///< the line cannot be written and is counted as lost
  };

  LogOutput() = default;
  LogOutput(const LogOutput&) = delete;
  LogOutput& operator=(const LogOutput&) = delete;
  virtual ~LogOutput() = default;

  /// Writes one line. May block for at most about 100 ms, so that the writer can be stopped; an
  /// output that has to wait longer returns kBusy. Must not log.
  virtual Result Write(const LogLine& line) = 0;

  /// The most verbose level that the output takes; set before the output is added to the log.
  void SetLevel(LogLevel level) { level_ = level; }
  [[nodiscard]] LogLevel Level() const { return level_; }

 private:
  LogLevel level_ = LogLevel::kInformation;
};
