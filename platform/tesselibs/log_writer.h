#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tesselibs/log_output.h"

/// A bounded queue of log lines and the thread that writes them to an output.
///
/// The thread has all signals blocked, so that none that is meant for the program is handled there.
/// All members may be called from any thread, Add and Remove from one at a time.
class LogWriter {
 public:
  struct Limits {
    std::size_t queuedBytes = 1 << 20;
    std::chrono::milliseconds patience{
        1000};  ///< how long a line of level 5 or below waits for room
    std::chrono::milliseconds gatherTime{
        20};  ///< how long lines that tell of no fault are gathered
    std::chrono::milliseconds flushTime{2000};  ///< how long Flush, Remove and the destructor wait
  };

  LogWriter() : LogWriter(Limits{}) {}
  explicit LogWriter(const Limits& limits) : limits_(limits) {}
  ~LogWriter() { Remove(); }

  /// Starts writing to the output.
  /// @return false, leaving `output` with the caller, when there is one already or the thread
  /// cannot
  ///         be started
  [[nodiscard]] bool Add(std::unique_ptr<LogOutput>& output);

  /// Flushes, stops the thread and hands the output back; empty when there is none.
  std::unique_ptr<LogOutput> Remove();

  /// Queues a line, or counts it as lost; without an output does nothing.
  /// @throws std::bad_alloc having done nothing
  void Push(LogLevel level, std::string_view text, int facility = kDaemonFacility);

  /// Counts a line that could not even be pushed.
  void CountLost();

  /// @return whether everything that was pushed before the call is written
  bool Flush();

 private:
  /// Lines one after the other in one string, so that a line costs no allocation of its own.
  struct Batch {
    struct Entry {
      std::time_t when;
      LogLevel level;
      int facility;
      std::size_t length;
    };
    std::string text;
    std::vector<Entry> entries;

    [[nodiscard]] std::size_t Bytes() const { return text.size() + entries.size() * sizeof(Entry); }
  };

  void Run();
  void WriteBatch(const Batch& batch);
  std::size_t WriteLines(std::span<const LogLine> lines);
  void ReportLost(std::uint64_t count, std::time_t when);
  bool HasRoom(std::size_t length) const;
  bool WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t length);
  [[nodiscard]] bool OutOfTime();

  const Limits limits_;
  std::unique_ptr<LogOutput> output_;
  std::thread thread_;

  std::mutex mutex_;  ///< guards what follows
  std::condition_variable linesQueued_;
  std::condition_variable roomMade_;
  std::condition_variable allWritten_;
  Batch queued_;
  bool running_ = false;
  bool stopping_ = false;
  bool urgent_ = false;   ///< what is queued is to be written at once
  bool writing_ = false;  ///< the thread holds lines that are not written yet
  bool stuck_ = false;    ///< a wait for room was in vain, and the writer has not moved since
  std::chrono::steady_clock::time_point stopDeadline_;
  std::uint64_t lost_ = 0;  ///< lines dropped or not written, and not told yet
};
