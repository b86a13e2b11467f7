#include "tesselibs/log_writer.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>
#include <system_error>
#include <utility>

#include "tesselibs/signals_blocked.h"

namespace {

// Up to this level lines tell of faults, and are written at once.
constexpr LogLevel kLastUrgentLevel = LogLevel::kError;
// From this level on lines are for following what goes on, not for learning of faults.
constexpr LogLevel kFirstDroppableLevel = LogLevel::kInformation;
constexpr LogLevel kLostLinesLevel = LogLevel::kError;
constexpr std::size_t kLinesAtOnce = 64;

}  // namespace

bool LogWriter::Add(std::unique_ptr<LogOutput>& output) {
  if (!output || output_) return false;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = stuck_ = false;
  }
  output_ = std::move(output);
  try {
    const SignalsBlocked blocked;
    thread_ = std::thread(&LogWriter::Run, this);
  } catch (const std::system_error&) {
    output = std::move(output_);
    return false;
  }
  const std::lock_guard lock(mutex_);
  running_ = true;
  return true;
}

std::unique_ptr<LogOutput> LogWriter::Remove() {
  if (!output_) return nullptr;
  {
    const std::lock_guard lock(mutex_);
    running_ = false;
    stopping_ = true;
    stopDeadline_ = std::chrono::steady_clock::now() + limits_.flushTime;
  }
  linesQueued_.notify_one();
  thread_.join();
  return std::move(output_);
}

void LogWriter::Push(LogLevel level, std::string_view text, int facility) {
  const std::time_t now = std::time(nullptr);
  std::unique_lock lock(mutex_);
  if (!running_) return;
  if (!HasRoom(text.size()) && (level >= kFirstDroppableLevel || !WaitForRoom(lock, text.size()))) {
    ++lost_;
    return;
  }
  bool wake = queued_.entries.empty() && !writing_;
  queued_.entries.push_back({now, level, facility, text.size()});
  try {
    queued_.text.append(text);
  } catch (...) {
    queued_.entries.pop_back();
    throw;
  }
  if (level <= kLastUrgentLevel || queued_.Bytes() > limits_.queuedBytes / 2)
    wake |= !std::exchange(urgent_, true);
  lock.unlock();
  if (wake) linesQueued_.notify_one();
}

void LogWriter::CountLost() {
  const std::lock_guard lock(mutex_);
  ++lost_;
}

bool LogWriter::HasRoom(std::size_t length) const {
  return queued_.Bytes() + length + sizeof(Batch::Entry) <= limits_.queuedBytes;
}

bool LogWriter::WaitForRoom(std::unique_lock<std::mutex>& lock, std::size_t length) {
  if (stuck_) return false;
  const bool room = roomMade_.wait_for(lock, limits_.patience, [&] { return HasRoom(length); });
  stuck_ = !room;
  return room && running_;
}

bool LogWriter::Flush() {
  std::unique_lock lock(mutex_);
  if (!running_) return true;
  urgent_ = true;
  linesQueued_.notify_one();
  return allWritten_.wait_for(lock, limits_.flushTime,
                              [this] { return queued_.entries.empty() && !writing_; });
}

void LogWriter::Run() {
  Batch batch;
  std::unique_lock lock(mutex_);
  for (;;) {
    linesQueued_.wait(lock, [this] { return stopping_ || !queued_.entries.empty(); });
    if (queued_.entries.empty()) return;
    // One wake-up for the lines of many requests: waking this thread for each of them would cost
    // the service more than serving it.
    linesQueued_.wait_for(lock, limits_.gatherTime, [this] { return stopping_ || urgent_; });
    urgent_ = false;
    std::swap(batch, queued_);
    writing_ = true;
    stuck_ = false;
    lock.unlock();
    roomMade_.notify_all();

    WriteBatch(batch);
    batch.text.clear();
    batch.entries.clear();

    lock.lock();
    writing_ = false;
    allWritten_.notify_all();
  }
}

void LogWriter::WriteBatch(const Batch& batch) {
  std::array<LogLine, kLinesAtOnce> lines;
  std::string_view text = batch.text;
  std::span<const Batch::Entry> entries = batch.entries;
  std::uint64_t lost = 0;
  while (!entries.empty()) {
    const std::size_t count = std::min(entries.size(), lines.size());
    for (std::size_t i = 0; i < count; ++i) {
      lines[i] = {entries[i].when, entries[i].level, text.substr(0, entries[i].length),
                  entries[i].facility};
      text.remove_prefix(entries[i].length);
    }
    lost += WriteLines({lines.data(), count});
    if (OutOfTime()) return;
    entries = entries.subspan(count);
  }
  const std::time_t now = std::time(nullptr);
  {
    const std::lock_guard lock(mutex_);
    lost += std::exchange(lost_, 0);
  }
  if (lost > 0) ReportLost(lost, now);
}

void LogWriter::ReportLost(std::uint64_t count, std::time_t when) {
  std::array<char, 64> text;
  const int length = std::snprintf(text.data(), text.size(), "%llu log lines were lost",
                                   static_cast<unsigned long long>(count));
  const LogLine line{when, kLostLinesLevel, {text.data(), static_cast<std::size_t>(length)}};
  if (WriteLines({&line, 1}) == 0) return;
  const std::lock_guard lock(mutex_);
  lost_ += count;
}

/// @return how many of the lines were lost
std::size_t LogWriter::WriteLines(std::span<const LogLine> lines) {
  std::size_t lost = 0;
  while (!lines.empty()) {
    LogOutput::Progress progress{.lost = lines.size()};
    try {
      progress = output_->Write(lines);
    } catch (const std::bad_alloc&) {
      // Those lines are lost.
    }
    lost += progress.lost;
    lines = lines.subspan(progress.written + progress.lost);
    if (OutOfTime()) return lost + lines.size();
  }
  return lost;
}

bool LogWriter::OutOfTime() {
  const std::lock_guard lock(mutex_);
  return stopping_ && std::chrono::steady_clock::now() >= stopDeadline_;
}
