#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tesselibs/log_level.h"
#include "tesselibs/log_output.h"

/// The host's log facility.
///
/// Lines are formatted on the caller's thread and handed to one writer thread over a bounded queue,
/// so that a system log which does not keep up, or hangs, does not hold up the service:
///
/// - Lines up to level 3 are written at once, others within 20 milliseconds, many in one go.
/// - While the queue is full, lines of level 6 and 7 are dropped and counted.
/// - A line of level 5 or below waits for room, for at most one second. Once such a wait has been
///   in vain, the system log counts as stuck and lines that find no room are dropped without
///   waiting, until the writer moves again.
/// - How many lines were lost is told in the log itself as soon as it takes lines again.
///
/// All functions may be called from any thread except an output's own Write. None throws.

/// How syslog outputs reach the system log.
struct Log_Config {
  std::string socketPath = "/dev/log";  ///< the datagram socket of the system log
};

/// @return the configuration for the host
const Log_Config& Log_CfgInterface();

/// Makes an output to the system log; see SyslogOutput.
/// @param kind  the transport, of which there is one: "syslog"
/// @return an empty pointer for another kind
std::unique_ptr<LogOutput> Log_NewSyslogOutput(const std::string& ident, const std::string& kind,
                                               const Log_Config& config);

/// Sets the most verbose level the output takes; takes effect when the output is added.
void Log_SetOutputLevel(LogOutput& output, LogLevel level);

/// Makes the output the one where lines go, and takes ownership of it. Lines logged while there is
/// no output go nowhere.
/// @return false, leaving `output` as it is, when there is an output already, `output` is empty or
///         the writer thread cannot be started
[[nodiscard]] bool Log_AddOutput(std::unique_ptr<LogOutput>& output);

/// Gives up an output that was not added.
void Log_FreeOutput(std::unique_ptr<LogOutput> output);

/// Takes the output back, after what was logged so far is written or two seconds have passed. The
/// end of the process does the same.
std::unique_ptr<LogOutput> Log_RemoveOutput();

/// Logs one line. The format ends in "\n" by custom; one such line end is trimmed. Leaves errno as
/// it was. Of a text of more than 8192 bytes, which is what system logs take, the levels 6 and 7
/// tell the rest in further lines that begin with "..."; at any other level it is cut, and the cut
/// is told in the line.
void Log_Level(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Logs a line on behalf of code with a facility of its own, like LOG_AUTHPRIV: see syslog(3). The
/// lines of Log_Level go to LOG_DAEMON.
void Log_Facility(int facility, LogLevel level, std::string_view text);

/// @return whether a line of this level would go anywhere. Costs one atomic read.
[[nodiscard]] bool Log_IsEnabled(LogLevel level);

/// Waits until what was logged so far is written, for at most two seconds.
/// @return whether it is
bool Log_Flush();
