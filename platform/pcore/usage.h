#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <string>

namespace PcoreCtl {

/// The time and memory that a process of a resource group used, for the log.
class Usage {
 public:
  /// Elapsed time counts from here.
  explicit Usage(std::string group) : group_(std::move(group)) {}

  /// Takes what the kernel tells of a child that was waited for. To the kernel a child's peak
  /// memory begins with that of the process whose memory it shared until it began its program, so a
  /// command that needs less than this process shows as much as this process.
  void Set(const rusage& usage);

  /// Takes what a running process has used so far; keeps what it knows when the process is gone.
  void Sample(pid_t pid);

  /// Logs at level 6.
  void Log(pid_t pid) const;

 private:
  std::string group_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  double cpuSeconds_ = 0;
  long peakKibibytes_ = 0;
};

}  // namespace PcoreCtl
