#pragma once

#include <chrono>
#include <ctime>
#include <string>

#include "tesselibs/log_output.h"

/// Writes lines to the system log's local datagram socket, one datagram a line, in the form of
/// RFC 3164, section 4.1: priority (facility daemon, the level as severity), time stamp in local
/// time, ident, process id and text.
///
/// Control characters in the text are written as "#" and three octal digits, so that no text that
/// comes from outside can look like another line. A system log that restarts is found again: a
/// failing socket is connected anew, at most once a second while that fails too.
class SyslogOutput : public LogOutput {
 public:
  SyslogOutput(std::string ident, std::string socketPath);
  ~SyslogOutput() override;

  Result Write(const LogLine& line) override;

 private:
  bool Connect();
  void Disconnect();
  void Format(const LogLine& line);
  Result Send();

  const std::string ident_;
  const std::string socketPath_;
  int socket_ = -1;
  std::chrono::steady_clock::time_point nextConnect_;
  std::time_t stampTime_ = -1;  ///< the second that stamp_ tells
  std::string stamp_;
  std::string datagram_;
};
