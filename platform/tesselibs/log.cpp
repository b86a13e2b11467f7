#include "tesselibs/log.h"

#include <errno.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
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

/// @return as much of the text as fits into a line, without half of a UTF-8 character at its end:
///         system logs take such a text for binary
std::string_view Piece(std::string_view text) {
  std::size_t length = std::min(text.size(), kLongestText);
  while (length > 0 && length < text.size() && (text[length] & 0xC0) == 0x80) --length;
  return text.substr(0, length == 0 ? kLongestText : length);
}

/// Lines that a full queue makes drop out hold nobody up however many they are; the others would.
bool IsToldWhole(LogLevel level) { return level >= LogLevel::kInformation; }

/// @param text  may end early where it is not told whole, but not before the first byte too many
/// @param length  of the whole text
void PushText(LogLevel level, std::string_view text, std::size_t length) {
  if (length <= kLongestText) return Writer().Push(level, TrimLineEnd(text));
  std::string_view piece = Piece(text);
  if (!IsToldWhole(level)) {
    return Writer().Push(level, std::string(piece) + "... (" +
                                    std::to_string(length - piece.size()) + " more bytes)");
  }
  text = TrimLineEnd(text);
  Writer().Push(level, piece);
  for (text.remove_prefix(piece.size()); !text.empty(); text.remove_prefix(piece.size())) {
    piece = Piece(text);
    Writer().Push(level, "..." + std::string(piece));
  }
}

void PushFormatted(LogLevel level, const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  char buffer[1024];
  const int result = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  const auto length = static_cast<std::size_t>(std::max(result, 0));
  if (result >= 0 && length < sizeof buffer) {
    PushText(level, {buffer, length}, length);
  } else if (result >= 0) {
    std::string text(IsToldWhole(level) ? length : std::min(length, kLongestText + 1), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    PushText(level, text, length);
  }
  va_end(again);
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
  std::va_list arguments;
  va_start(arguments, format);
  try {
    if (std::strcmp(format, "%s") == 0) {  // a text that stands already, as the framework's do
      const std::string_view text = va_arg(arguments, const char*);
      PushText(level, text, text.size());
    } else {
      PushFormatted(level, format, arguments);
    }
  } catch (const std::bad_alloc&) {
    Writer().CountLost();
  }
  va_end(arguments);
  errno = callersErrno;
}

void Log_Facility(int facility, LogLevel level, std::string_view text) {
  if (!Log_IsEnabled(level)) return;
  const int callersErrno = errno;
  try {
    Writer().Push(level, TrimLineEnd(text), facility);
  } catch (const std::bad_alloc&) {
    Writer().CountLost();
  }
  errno = callersErrno;
}

bool Log_Flush() { return Writer().Flush(); }
