#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tesselibs/log_output.h"

/// Writes lines to the system log's local datagram socket, one datagram a line, in the form of
/// RFC 3164, section 4.1: priority (the level as severity), time stamp in local
/// time, ident, process id and text.
///
/// Control characters in the text are written as "#" and three octal digits, so that no text that
/// comes from outside can look like another line. A system log that restarts is found again: a
/// failing socket is connected anew, at most once a second while that fails too.
class SyslogOutput : public LogOutput {
 public:
  SyslogOutput(std::string ident, std::string socketPath);
  ~SyslogOutput() override;

  Progress Write(std::span<const LogLine> lines) override;

 private:
  bool Connect();
  void Disconnect();
  void StampHeads(std::time_t when);
  void AppendHead(const LogLine& line);
  void Format(std::span<const LogLine> lines);
  Progress Send();

  const std::string ident_;
  const std::string socketPath_;
  int socket_ = -1;
  std::chrono::steady_clock::time_point nextConnect_;
  std::time_t stampTime_ = -1;  ///< the second that the heads tell
  std::string headEnd_;         ///< what stands before the text, but for the priority
  std::array<std::string, 8>
      heads_;                      ///< what stands before the text of the facility daemon, by level
  std::string datagrams_;          ///< one after the other
  std::vector<std::size_t> ends_;  ///< of each of them
};
