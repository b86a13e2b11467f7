#pragma once

#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string_view>
#include <type_traits>

/// The framework's abstract logger. Framework and transport code logs through this interface only;
/// the program that embeds the framework decides where the lines go.
namespace Orbi::Log {

/// Framework levels, most verbose first. A level outside this range is a programming error.
enum Level : int { kTrace = 0, kDebug = 1, kInfo = 2, kWarning = 3, kError = 4, kFatal = 5 };

/// One log line in the making: write the message into Stream(); destroying the record emits it.
class LogRecord {
 public:
  LogRecord() = default;
  LogRecord(const LogRecord&) = delete;
  LogRecord& operator=(const LogRecord&) = delete;

  virtual std::ostream& Stream() = 0;
  virtual ~LogRecord() = default;
};

/// Creates log records. Implementations are safe to call from any thread; a record belongs to the
/// thread that made it.
class Logger {
 public:
  /// @return an empty pointer when the level is disabled, so that the caller skips all formatting
  virtual std::unique_ptr<LogRecord> CreateRecord(int level) = 0;
  virtual ~Logger() = default;
};

/// Puts a value on a line. Texts, addresses and whole numbers go straight into the stream's buffer:
/// no line has fields of a set width, and the stream's own way costs several times as much.
template <typename Arg>
void Put(std::ostream& line, const Arg& arg) {
  const auto put = [&line](std::string_view text) {
    line.rdbuf()->sputn(text.data(), static_cast<std::streamsize>(text.size()));
  };
  std::array<char, 24> digits;
  if constexpr (std::is_same_v<Arg, char>) {
    line.rdbuf()->sputc(arg);
  } else if constexpr (std::is_convertible_v<const Arg&, std::string_view>) {
    put(arg);
  } else if constexpr (std::is_integral_v<Arg> && !std::is_same_v<Arg, bool>) {
    put({digits.data(), std::to_chars(digits.begin(), digits.end(), arg).ptr});
  } else if constexpr (std::is_same_v<Arg, const void*>) {
    put("0x");
    const auto address = reinterpret_cast<std::uintptr_t>(arg);
    put({digits.data(), std::to_chars(digits.begin(), digits.end(), address, 16).ptr});
  } else {
    line << arg;
  }
}

/// Writes the arguments to `logger` as one line, formatting nothing when the level is disabled. A
/// line for which there is no memory is cut, or lost: what is told matters less than what is done.
template <typename... Args>
void Write(Logger& logger, int level, const Args&... args) noexcept {
  try {
    const auto record = logger.CreateRecord(level);
    if (!record) return;
    std::ostream& line = record->Stream();
    (Put(line, args), ...);
  } catch (...) {
  }
}

}  // namespace Orbi::Log
