#include "software/command/run_command.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <vector>

#include "pcore/pcore_ctl.h"
#include "pcore/pcoreuser_compat.h"
#include "tesselibs/log.h"
#include "tesselibs/unique_fd.h"

namespace LifeCycle {

namespace {

constexpr const char* kFunction = "RunCommand";
constexpr std::size_t kMostOutput = 64U << 20;
const auto kPageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

CommandResult NotStarted(const std::string& command, int status) {
  char text[256];
  PcoreuserStatus_CodeToString(status, text, sizeof text);
  Log_Level(LogLevel::kCritical, "[%s] Could not start command: %s, error: %s\n", kFunction,
            command.c_str(), text);
  return {CommandResult::kNotStarted, status};
}

/// @return 0 or the system's error number
int WriteInput(const PcoreuserCompat_Handle& pipe, const std::string& input) {
  Log_Level(LogLevel::kInformation, "[%s]: Writing to command: %s.\n", kFunction, input.c_str());
  if (write(pipe.Descriptor(), input.data(), input.size()) >= 0) return 0;
  const int error = errno;
  Log_Level(LogLevel::kCritical, "[%s]: Failed to write %lu bytes to pipe.\n", kFunction,
            input.size());
  return error;
}

/// @return 0 or the system's error number
int CollectOutput(const PcoreuserCompat_Handle& pipe, std::string& output) {
  std::vector<char> page(kPageSize + 1);
  std::size_t total = 0;
  ssize_t length = 0;
  errno = 0;
  while ((length = read(pipe.Descriptor(), page.data(), kPageSize)) > 0) {
    total += static_cast<std::size_t>(length);
    if (total > kMostOutput) {
      errno = EMSGSIZE;
      length = -1;
      break;
    }
    page[static_cast<std::size_t>(length)] = '\0';
    output.append(page.data());
  }
  return length < 0 ? errno : 0;
}

int ReadOutput(const PcoreuserCompat_Handle& pipe, std::string& output) {
  const int error = CollectOutput(pipe, output);
  if (error == 0) {
    Log_Level(LogLevel::kInformation, "[%s] Got result : %s\n", kFunction, output.c_str());
  } else {
    Log_Level(LogLevel::kInformation, "[%s] Error reading from pipe: %s\n", kFunction,
              strerror(error));
  }
  return error;
}

CommandResult Close(PcoreuserCompat_Handle& pipe) {
  int waitStatus = 0;
  const int status = PcoreuserCompat_PClose(pipe, waitStatus);
  Log_Level(LogLevel::kInformation, "[%s] Status from pclose %d\n", kFunction, status);
  const int code = status == 0 && WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : waitStatus;
  Log_Level(LogLevel::kInformation, "[%s] Command return code %d\n", kFunction, code);
  return {code == 0 ? CommandResult::kSuccess : CommandResult::kFailed, code};
}

/// A command's standard error, as a file without a name: who writes never waits for who reads, and
/// it cannot grow without end.
class ErrorStream {
 public:
  /// @param wanted  whether it is to be kept apart; it is this process's otherwise
  explicit ErrorStream(bool wanted) {
    if (!wanted) return;
    file_ = UniqueFd(memfd_create("errors", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file_ || ftruncate(file_.Get(), kMost) != 0 ||
        fcntl(file_.Get(), F_ADD_SEALS, F_SEAL_GROW) != 0)
      file_.Reset();
  }

  [[nodiscard]] int Descriptor() const { return file_ ? file_.Get() : -1; }

  /// @return what was written; people's part of it is passed on
  [[nodiscard]] std::string Take() const {
    const off_t length = file_ ? lseek(file_.Get(), 0, SEEK_CUR) : 0;
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (pread(file_.Get(), text.data(), text.size(), 0) != length) text.clear();
    std::istringstream lines(text);
    std::string forPeople;
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line[0] != kForPrograms) forPeople += line + "\n";
    }
    if (!forPeople.empty() && write(STDERR_FILENO, forPeople.data(), forPeople.size()) < 0) {
      // Nobody listens there; what the command did is told by its end.
    }
    return text;
  }

 private:
  static constexpr off_t kMost = 64 << 10;
  UniqueFd file_;
};

CommandResult NotExecuted(int error) {
  Log_Level(LogLevel::kCritical, "[%s] Got exception from exec\n", kFunction);
  return {CommandResult::kNotStarted, error};
}

}  // namespace

CommandResult RunCommand(const std::string& command, const std::string* input, std::string* output,
                         std::string* errors) {
  Log_Level(LogLevel::kInformation, "[%s] About to run command %s\n", kFunction, command.c_str());
  if (input != nullptr && output != nullptr) return NotStarted(command, EINVAL);

  errno = 0;
  // Leaving with the pipe open closes it; the command is then not waited for.
  PcoreuserCompat_Handle pipe;
  const ErrorStream errorStream(errors != nullptr);
  const int status =
      PcoreuserCompat_POpen(command, input != nullptr ? "w" : "r", pipe, errorStream.Descriptor());
  if (status != 0) return NotStarted(command, status);
  if (input != nullptr) {
    if (const int error = WriteInput(pipe, *input)) return {CommandResult::kInputNotWritten, error};
  }
  if (output != nullptr) {
    if (const int error = ReadOutput(pipe, *output)) return {CommandResult::kOutputNotRead, error};
  }
  const CommandResult result = Close(pipe);
  if (errors != nullptr) *errors = errorStream.Take();
  return result;
}

CommandResult RunCommand(const std::string& command, std::string* errors) {
  errno = 0;
  try {
    const ErrorStream errorStream(errors != nullptr);
    const int code =
        PcoreCtl::Util::PcoreCtl_Exec(command, false, true, true, errorStream.Descriptor());
    if (errors != nullptr) *errors = errorStream.Take();
    Log_Level(LogLevel::kInformation, "[%s] Got returnCode from exec: %d\n", kFunction, code);
    return {code == 0 ? CommandResult::kSuccess : CommandResult::kFailed, code};
  } catch (const HostCtl::Lib::HostCtlException& failure) {
    // What unwound the stack may have changed errno.
    return NotExecuted(failure.code().value());
  } catch (...) {
    return NotExecuted(errno);
  }
}

}  // namespace LifeCycle
