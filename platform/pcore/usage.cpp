#include "pcore/usage.h"

#include <unistd.h>

#include <fstream>

#include "tesselibs/log.h"

namespace PcoreCtl {

namespace {

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// User and system time from the 14th and 15th field of the stat file (proc(5)). The second is the
/// program's name in parentheses, which may hold anything.
double CpuSeconds(const std::string& directory, double otherwise) {
  std::ifstream file(directory + "/stat");
  std::string line;
  if (!std::getline(file, line)) return otherwise;
  unsigned long user = 0;
  unsigned long system = 0;
  const std::size_t nameEnd = line.rfind(')');
  if (nameEnd == std::string::npos ||
      std::sscanf(line.c_str() + nameEnd, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                  &user, &system) != 2) {
    return otherwise;
  }
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long PeakKibibytes(const std::string& directory, long otherwise) {
  std::ifstream file(directory + "/status");
  long kibibytes = 0;
  for (std::string line; std::getline(file, line);) {
    if (std::sscanf(line.c_str(), "VmHWM: %ld", &kibibytes) == 1) return kibibytes;
  }
  return otherwise;
}

}  // namespace

void Usage::Set(const rusage& usage) {
  cpuSeconds_ = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
  peakKibibytes_ = usage.ru_maxrss;
}

void Usage::Sample(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid);
  cpuSeconds_ = CpuSeconds(directory, cpuSeconds_);
  peakKibibytes_ = PeakKibibytes(directory, peakKibibytes_);
}

void Usage::Log(pid_t pid) const {
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
  Log_Level(LogLevel::kInformation,
            "[%s]: process %d ended after %.3f s, CPU time %.3f s, peak memory %ld KiB\n",
            group_.c_str(), static_cast<int>(pid), elapsed.count(), cpuSeconds_, peakKibibytes_);
}

}  // namespace PcoreCtl
