#include "tesselibs/log.h"

#include <errno.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tesselibs/log_writer.h"
#include "tesselibs/syslog_output.h"

namespace {

constexpr int kNothingEnabled = -1;
constexpr std::size_t kLongestText = 8192;

std::atomic<int> enabledLevel{kNothingEnabled};

/// The process's writer. It is never destroyed, so that threads may log until the very end; exit
/// removes the output, which flushes it.
LogWriter& Writer() {
  static LogWriter* const writer = [] {
    std::atexit([] { Log_RemoveOutput(); });
    return std::make_unique<LogWriter>().release();
  }();
  return *writer;
}

std::string_view TrimLineEnd(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

/// Formats a text that is `length` bytes long and did not fit the small buffer.
std::string FormatLong(std::size_t length, const char* format, std::va_list arguments) {
  std::size_t kept = std::min(length, kLongestText);
  std::string text(kept + 2, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  if (length == kept) return text.substr(0, kept);
  // No half of a UTF-8 character stays: system logs take such a text for binary.
  while (kept > 0 && (text[kept] & 0xC0) == 0x80) --kept;
  return text.substr(0, kept) + "... (" + std::to_string(length - kept) + " more bytes)";
}

}  // namespace

const Log_Config& Log_CfgInterface() {
  static const Log_Config config;
  return config;
}

std::unique_ptr<LogOutput> Log_NewSyslogOutput(const std::string& ident, const std::string& kind,
                                               const Log_Config& config) {
  if (kind != "syslog") return nullptr;
  return std::make_unique<SyslogOutput>(ident, config.socketPath);
}

void Log_SetOutputLevel(LogOutput& output, LogLevel level) { output.SetLevel(level); }

bool Log_AddOutput(std::unique_ptr<LogOutput>& output) {
  const int level = output ? static_cast<int>(output->Level()) : kNothingEnabled;
  if (!Writer().Add(output)) return false;
  enabledLevel = level;
  return true;
}

void Log_FreeOutput(std::unique_ptr<LogOutput> output) { output.reset(); }

std::unique_ptr<LogOutput> Log_RemoveOutput() {
  enabledLevel = kNothingEnabled;
  return Writer().Remove();
}

bool Log_IsEnabled(LogLevel level) {
  return static_cast<int>(level) <= enabledLevel.load(std::memory_order_relaxed);
}

void Log_Level(LogLevel level, const char* format, ...) {
  if (!Log_IsEnabled(level)) return;
  const int callersErrno = errno;
  char buffer[1024];
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof buffer) {
    Writer().Push(level, TrimLineEnd({buffer, static_cast<std::size_t>(length)}));
  } else if (length >= 0) {
    Writer().Push(level, TrimLineEnd(FormatLong(static_cast<std::size_t>(length), format, again)));
  }
  va_end(again);
  va_end(arguments);
  errno = callersErrno;
}

bool Log_Flush() { return Writer().Flush(); }
