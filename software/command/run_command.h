#pragma once

#include <cstdint>
#include <string>

namespace LifeCycle {

/// How a command ended. Callers test `kind` first.
struct CommandResult {
  enum Kind : std::uint32_t {
    kSuccess = 0,
    kNotStarted = 1,       ///< code: why, as a system error number
    kFailed = 2,           ///< code: its return code, not zero
    kInputNotWritten = 3,  ///< code: why, as a system error number
    kOutputNotRead = 4,    ///< code: why, as a system error number
  };

  Kind kind;
  std::int32_t code;  ///< 0 for success
};

/// Runs a command line to its end; see PcoreCtl::Spawn for what a command line is.
///
/// The return code is the exit status. A command that a signal ended has the raw wait status as its
/// return code instead (the number of the signal, plus 128 when it dumped core).
///
/// The caller's thread blocks meanwhile. Never throws; callable from any thread of a process that
/// ignores SIGPIPE.
///
/// @param input   written to the command's standard input, when not null. The command is given as
///                long as it takes to read it; one that ends without having read all of it has not
///                failed by that alone.
/// @param output  the command's standard output is appended to it, when not null. It is text: of
///                each piece read only what stands before a zero byte is taken. More than 64 MiB
///                are an error (EMSGSIZE).
///                Input and output cannot both be given (EINVAL).
/// @param errors  gets what the command wrote to its standard error, when not null: at most 64 KiB,
///                beyond which its writes fail. People find it where this process's goes to as
///                well, but for lines that begin with kForPrograms.
CommandResult RunCommand(const std::string& command, const std::string* input, std::string* output,
                         std::string* errors = nullptr);

/// Runs a command line to its end without input and with inherited streams.
CommandResult RunCommand(const std::string& command, std::string* errors = nullptr);

/// Begins a line of standard error that is a JSON text and means nothing to people (RFC 7464).
inline constexpr char kForPrograms = '\x1e';

}  // namespace LifeCycle
