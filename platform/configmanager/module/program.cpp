#include "configmanager/module/program.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <system_error>
#include <utility>

#include "configmanager/task_progress.h"
#include "pcore/command_line.h"
#include "pcore/host_ctl_exception.h"
#include "pcore/spawn.h"
#include "tesselibs/log.h"
#include "tesselibs/unique_fd.h"
#include "tesselibs/utf8.h"

namespace RyxConfigManager {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kTerminationGrace = 1s;
constexpr auto kAbortPollInterval = 50ms;
/// What is logged of a program's standard error, in bytes; the rest is dropped.
constexpr std::size_t kMaxLoggedErrors = 4096;

[[noreturn]] void ThrowUnexpected(const std::string& what) {
  throw ProgramFailure(ProgramFailure::Kind::kUnexpected, what);
}

[[noreturn]] void ThrowSystemError(const char* what, int error) {
  ThrowUnexpected(std::string(what) + ": " + std::generic_category().message(error));
}

/// The input as a file without a name: the program reads it when it likes, so that neither side
/// ever waits for the other, and nothing happens when it does not read it at all.
UniqueFd OpenInput(const std::string& input) {
  UniqueFd file(memfd_create("request", MFD_CLOEXEC));
  if (!file) ThrowSystemError("Cannot make a request", errno);
  for (std::size_t written = 0; written < input.size();) {
    const ssize_t length = write(file.Get(), input.data() + written, input.size() - written);
    if (length < 0 && errno != EINTR) ThrowSystemError("Cannot write a request", errno);
    if (length > 0) written += static_cast<std::size_t>(length);
  }
  lseek(file.Get(), 0, SEEK_SET);
  return file;
}

/// One of a program's output streams.
class Output {
 public:
  Output() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) ThrowSystemError("Cannot make a pipe", errno);
    readEnd_ = UniqueFd(ends[0]);
    writeEnd_ = UniqueFd(ends[1]);
    fcntl(readEnd_.Get(), F_SETFL, O_NONBLOCK);
  }

  [[nodiscard]] int ReadEnd() const { return readEnd_.Get(); }
  [[nodiscard]] int WriteEnd() const { return writeEnd_.Get(); }
  void CloseWriteEnd() { writeEnd_.Reset(); }

  /// Takes what is there, as far as `limit` bytes in all; drops the rest.
  /// @return whether there may be more
  bool Take(std::size_t limit) {
    char buffer[65536];
    const ssize_t length = readEnd_ ? read(readEnd_.Get(), buffer, sizeof buffer) : 0;
    if (length == 0) readEnd_.Reset();
    if (length <= 0) return false;
    const std::size_t kept = std::min(limit - text.size(), static_cast<std::size_t>(length));
    text.append(buffer, kept);
    overflowed = overflowed || kept < static_cast<std::size_t>(length);
    return true;
  }

  std::string text;
  bool overflowed = false;

 private:
  UniqueFd readEnd_;
  UniqueFd writeEnd_;
};

/// A program that runs. It has ended, with all that it started, when this object ends.
class RunningProgram {
 public:
  RunningProgram(const std::filesystem::path& program, const std::string& input)
      : name_(program.string()), child_(Start(OpenInput(input))) {
    output_.CloseWriteEnd();
    errors_.CloseWriteEnd();
  }
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;
  ~RunningProgram() {
    if (!reaped_) Terminate();
    while (errors_.Take(kMaxLoggedErrors) && !errors_.overflowed) {
    }
    LogErrors();
  }

  /// Waits, for at most `time`, until the program has ended or written something, and takes that.
  /// @return whether it has ended
  bool Await(std::chrono::milliseconds time) {
    pollfd events[] = {{child_.Descriptor(), POLLIN, 0},
                       {output_.ReadEnd(), POLLIN, 0},
                       {errors_.ReadEnd(), POLLIN, 0}};
    if (poll(events, std::size(events), static_cast<int>(time.count())) <= 0) return false;
    output_.Take(kMaxProgramOutput);
    errors_.Take(kMaxLoggedErrors);
    return events[0].revents != 0;
  }

  [[nodiscard]] bool WroteTooMuch() const { return output_.overflowed; }

  /// @return what the program, which has ended, wrote
  std::string TakeResult() {
    int status = 0;
    if (const int error = Reap(status); error != 0) ThrowSystemError("Cannot wait", error);
    while (output_.Take(kMaxProgramOutput) && !WroteTooMuch()) {
    }
    if (WroteTooMuch()) ThrowTooMuch();
    if (WIFSIGNALED(status)) {
      ThrowUnexpected(std::string("ended by signal: ") + strsignal(WTERMSIG(status)));
    }
    if (WEXITSTATUS(status) != 0) {
      throw ProgramFailure(ProgramFailure::Kind::kSaidSo,
                           "ended with exit status " + std::to_string(WEXITSTATUS(status)),
                           LastWords());
    }
    return std::move(output_.text);
  }

  [[noreturn]] static void ThrowTooMuch() {
    ThrowUnexpected("wrote more than " + std::to_string(kMaxProgramOutput) + " bytes");
  }

 private:
  PcoreCtl::Child Start(const UniqueFd& input) {
    PcoreCtl::SpawnOptions options;
    options.standardInput = input.Get();
    options.standardOutput = output_.WriteEnd();
    options.standardError = errors_.WriteEnd();
    options.newSession = true;
    // One that goes on alone could overwrite what the next daemon applies.
    options.endsWithThread = true;
    try {
      return PcoreCtl::Spawn(PcoreCtl::QuoteWord(name_), options);
    } catch (const HostCtl::Lib::HostCtlException& error) {
      ThrowUnexpected(error.what());
    }
  }

  void Terminate() {
    child_.SignalGroup(SIGTERM);
    for (const auto end = Clock::now() + kTerminationGrace; Clock::now() < end;) {
      if (Await(kAbortPollInterval)) break;
    }
    int status = 0;
    Reap(status);
  }

  /// Until it is waited for, the program keeps its group's number from being another's: the time to
  /// end what is left of the group.
  int Reap(int& status) {
    child_.SignalGroup(SIGKILL);
    reaped_ = true;
    return child_.Wait(status);
  }

  /// Nothing for a line that is no text: it ends in answers to clients.
  std::string LastWords() {
    while (errors_.Take(kMaxLoggedErrors) && !errors_.overflowed) {
    }
    std::string last;
    std::istringstream lines(errors_.text);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty()) last = std::move(line);
    }
    return Utf8::IsValid(last) ? last : std::string();
  }

  void LogErrors() const {
    std::istringstream lines(errors_.text);
    for (std::string line; std::getline(lines, line);) {
      Log_Level(LogLevel::kError, "[%s] %s\n", name_.c_str(), line.c_str());
    }
    if (errors_.overflowed)
      Log_Level(LogLevel::kError, "[%s] (more is not logged)\n", name_.c_str());
  }

  const std::string name_;
  Output output_;
  Output errors_;
  PcoreCtl::Child child_;
  bool reaped_ = false;
};

}  // namespace

std::string RunProgram(const std::filesystem::path& program, const std::string& input,
                       std::chrono::milliseconds timeLimit, const TaskInput* task) {
  const auto end = Clock::now() + timeLimit;
  ThrowIfAborted(task);
  RunningProgram running(program, input);
  while (!running.Await(kAbortPollInterval)) {
    ThrowIfAborted(task);
    if (running.WroteTooMuch()) RunningProgram::ThrowTooMuch();
    if (Clock::now() >= end) {
      ThrowUnexpected("did not end within " + std::to_string(timeLimit / 1ms) + " ms");
    }
  }
  return running.TakeResult();
}

}  // namespace RyxConfigManager
