#pragma once

/// The severities of log lines: those of syslog (RFC 5424, section 6.2.1), by their numbers. The
/// most verbose has the highest one.
enum class LogLevel : int {
  kEmergency = 0,
  kAlert = 1,
  kCritical = 2,
  kError = 3,
  kWarning = 4,
  kNotice = 5,
  kInformation = 6,
  kDebug = 7,
};

/// The facility of the lines of a service (LOG_DAEMON of syslog(3)).
inline constexpr int kDaemonFacility = 3 << 3;
