#pragma once

#include <cstddef>
#include <ctime>
#include <span>
#include <string_view>

#include "tesselibs/log_level.h"

/// One line on its way to an output, without its line end.
struct LogLine {
  std::time_t when;
  LogLevel level;
  std::string_view text;
  int facility = kDaemonFacility;
};

/// A place where log lines go. The log's writer thread is the only caller of Write.
class LogOutput {
 public:
  /// What became of the first lines that were offered; the others are offered again.
  struct Progress {
    std::size_t written = 0;
    std::size_t lost = 0;  ///< those behind the written ones that cannot be written
  };

  LogOutput() = default;
  LogOutput(const LogOutput&) = delete;
  LogOutput& operator=(const LogOutput&) = delete;
  virtual ~LogOutput() = default;

  /// Writes lines from the first on, as many as go at once. May block for at most about 100 ms, so
  /// that the writer can be stopped; an output that has to wait longer returns what it has done,
  /// maybe nothing. Must not log.
  /// @param lines  at least one
  /// @throws std::bad_alloc having written none
  virtual Progress Write(std::span<const LogLine> lines) = 0;

  /// The most verbose level that the output takes; set before the output is added to the log.
  void SetLevel(LogLevel level) { level_ = level; }
  [[nodiscard]] LogLevel Level() const { return level_; }

 private:
  LogLevel level_ = LogLevel::kInformation;
};
