#include "pcore/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "pcore/command_line.h"
#include "pcore/host_ctl_exception.h"
#include "pcore/reaper.h"
#include "pcore/resource_group.h"
#include "tesselibs/descriptor_limit.h"
#include "tesselibs/signals_blocked.h"

// What runs in the child runs on memory shared with this process, on a stack of its own. Sanitizers
// cannot follow that: these functions are not instrumented, and make system calls without the C
// library's functions, in whose place sanitizers put some that keep books.
#define PCORE_IN_CHILD __attribute__((no_sanitize("address", "thread", "undefined")))

// The C library's own name for clone(2), which has no sanitizer's function in its place either. The
// child ends when `run` returns.
// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int __clone(int (*run)(void*), void* stack, int flags, void* argument, ...);

namespace PcoreCtl {

namespace {

constexpr std::size_t kStackSize = std::size_t{64} * 1024;
constexpr int kCloneFlags = CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD;

/// Memory for the stack of a child until it begins its program.
class ChildStack {
 public:
  [[nodiscard]] void* Top() const { return memory_.get() + kStackSize; }

 private:
  std::unique_ptr<std::byte[]> memory_ = std::make_unique_for_overwrite<std::byte[]>(kStackSize);
};

/// Everything that a child needs, made ready before it exists: between its start and its program
/// only async-signal-safe calls are allowed.
struct Launch {
  std::vector<char*> arguments;
  std::vector<char*> environment;
  int streams[3] = {-1, -1, -1};  ///< descriptors to become the standard ones; -1 inherits
  int groupProcesses = -1;        ///< process list of the control group to join
  rlimit descriptorLimit = DescriptorLimit_OfChildren();
  bool limitData = false;
  rlimit dataLimit{};
  bool changeToRoot = false;
  bool newSession = false;
  pid_t endsWith = 0;  ///< the parent that the child is not to outlive

  ChildStack stack;
  ChildStack detacherStack;

  // Set by the child.
  int error = 0;
  pid_t pid = 0;
  int handle = -1;
};

PCORE_IN_CHILD bool EnterGroup(const Launch& launch) {
  if (launch.groupProcesses >= 0 && syscall(SYS_write, launch.groupProcesses, "0", 1) == 1) {
    return true;
  }
  return !launch.limitData ||
         syscall(SYS_prlimit64, 0, RLIMIT_DATA, &launch.dataLimit, nullptr) == 0;
}

PCORE_IN_CHILD bool PlaceStreams(const Launch& launch) {
  for (int fd = 0; fd < 3; ++fd) {
    const int source = launch.streams[fd];
    if (source < 0) continue;
    // A descriptor that is in its place already must not be closed with the program's start.
    if ((source == fd ? syscall(SYS_fcntl, fd, F_SETFD, 0) : syscall(SYS_dup3, source, fd, 0)) <
        0) {
      return false;
    }
  }
  return true;
}

PCORE_IN_CHILD void CloseOtherDescriptors() {
  if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
  // A kernel before 5.9, or a sandbox that does not know the call.
  rlimit descriptors{};
  syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, nullptr, &descriptors);
  for (rlim_t fd = 3; fd < descriptors.rlim_cur; ++fd) syscall(SYS_close, static_cast<int>(fd));
}

PCORE_IN_CHILD void ResetSignals() {
  // To the kernel, zeros are the default disposition and the empty mask.
  constexpr std::size_t kKernelMaskSize = _NSIG / 8;
  const unsigned long zeros[8] = {};
  for (int signal = 1; signal < _NSIG; ++signal) {
    syscall(SYS_rt_sigaction, signal, zeros, nullptr, kKernelMaskSize);
  }
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, zeros, nullptr, kKernelMaskSize);
}

PCORE_IN_CHILD bool TieToParent(const Launch& launch) {
  if (launch.endsWith == 0) return true;
  // The parent may have ended before it could be said.
  return syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGTERM, 0, 0, 0) == 0 &&
         syscall(SYS_getppid) == launch.endsWith;
}

PCORE_IN_CHILD int RunChild(void* argument) {
  Launch& launch = *static_cast<Launch*>(argument);
  if (EnterGroup(launch) && TieToParent(launch) &&
      (!launch.newSession || syscall(SYS_setsid) >= 0) &&
      (!launch.changeToRoot || syscall(SYS_chdir, "/") == 0) && PlaceStreams(launch)) {
    CloseOtherDescriptors();
    syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, &launch.descriptorLimit, nullptr);
    ResetSignals();
    syscall(SYS_execve, launch.arguments.front(), launch.arguments.data(),
            launch.environment.data());
  }
  launch.error = errno;
  return 127;
}

PCORE_IN_CHILD int Clone(int (*run)(void*), const ChildStack& stack, int flags, Launch& launch) {
  return __clone(run, stack.Top(), flags, &launch, &launch.handle);
}

/// The process between this one and a detached one: it starts the detached one and ends, so that
/// init becomes its parent. It shares this process's descriptors, so that the handle arrives here.
PCORE_IN_CHILD int RunDetacher(void* argument) {
  Launch& launch = *static_cast<Launch*>(argument);
  launch.pid = Clone(RunChild, launch.stack, kCloneFlags, launch);
  if (launch.pid < 0) launch.error = errno;
  return 0;
}

/// A started process.
struct Started {
  pid_t pid;
  UniqueFd handle;
};

void WaitQuietly(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

[[noreturn]] void ThrowStartFailure(const Launch& launch, int error) {
  throw HostCtl::Lib::HostCtlException(error, std::string("Cannot start ") + launch.arguments[0]);
}

// No handler of this process may run in the child, which shares its memory: signals stay blocked
// until the child has reset the handlers.
Started StartChild(Launch& launch) {
  const SignalsBlocked blocked;
  const pid_t pid = Clone(RunChild, launch.stack, kCloneFlags, launch);
  if (pid < 0) ThrowStartFailure(launch, errno);
  UniqueFd handle(launch.handle);
  if (launch.error != 0) {
    WaitQuietly(pid);
    ThrowStartFailure(launch, launch.error);
  }
  return {pid, std::move(handle)};
}

Started StartDetached(Launch& launch) {
  const SignalsBlocked blocked;
  const pid_t detacher = Clone(RunDetacher, launch.detacherStack,
                               CLONE_VM | CLONE_VFORK | CLONE_FILES | SIGCHLD, launch);
  if (detacher < 0) ThrowStartFailure(launch, errno);
  WaitQuietly(detacher);
  UniqueFd handle(launch.handle);
  if (launch.error != 0) ThrowStartFailure(launch, launch.error);
  return {launch.pid, std::move(handle)};
}

/// A command made ready to start. What `launch` points to lives here.
class Preparation {
 public:
  Preparation(const std::string& commandLine, const SpawnOptions& options);
  Preparation(const Preparation&) = delete;
  Preparation& operator=(const Preparation&) = delete;

  [[nodiscard]] std::optional<Usage> TakeUsage() { return std::move(usage_); }

  Launch launch;

 private:
  void PrepareGroup(const ResourceGroup& group);
  void PrepareStreams(const SpawnOptions& options);
  [[nodiscard]] bool IsReplaced(std::string_view variable) const;
  void PrepareEnvironment();

  std::vector<std::string> words_;
  std::vector<std::string> variables_;
  std::string defaultPath_ = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  UniqueFd nullDevice_;
  UniqueFd groupProcesses_;
  std::optional<Usage> usage_;
};

Preparation::Preparation(const std::string& commandLine, const SpawnOptions& options)
    : words_(SplitCommandLine(commandLine)), variables_(options.variables) {
  const auto group = TakeResourceGroup(words_);
  if (words_.empty()) throw HostCtl::Lib::HostCtlException(EINVAL, "Bad command line: no command");
  for (std::string& word : words_) launch.arguments.push_back(word.data());
  launch.arguments.push_back(nullptr);
  PrepareEnvironment();
  PrepareStreams(options);
  launch.changeToRoot = options.changeToRoot;
  launch.newSession = options.newSession;
  if (options.endsWithThread) launch.endsWith = getpid();
  if (group && options.honourGroup) PrepareGroup(*group);
  if (group && group->logUsage && options.logUsage) usage_.emplace(group->name);
}

bool Preparation::IsReplaced(std::string_view variable) const {
  const std::string_view name = variable.substr(0, variable.find('=') + 1);
  return std::ranges::any_of(variables_, [name](const auto& own) { return own.starts_with(name); });
}

void Preparation::PrepareEnvironment() {
  bool hasPath = false;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    hasPath = hasPath || std::string_view(*variable).starts_with("PATH=");
    if (!IsReplaced(*variable)) launch.environment.push_back(*variable);
  }
  for (std::string& variable : variables_) launch.environment.push_back(variable.data());
  if (!hasPath) launch.environment.push_back(defaultPath_.data());
  launch.environment.push_back(nullptr);
}

void Preparation::PrepareStreams(const SpawnOptions& options) {
  if (options.discardStreams) {
    nullDevice_ = UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!nullDevice_) ThrowStartFailure(launch, errno);
    std::fill(std::begin(launch.streams), std::end(launch.streams), nullDevice_.Get());
  }
  if (options.standardInput >= 0) launch.streams[0] = options.standardInput;
  if (options.standardOutput >= 0) launch.streams[1] = options.standardOutput;
  if (options.standardError >= 0) launch.streams[2] = options.standardError;
}

void Preparation::PrepareGroup(const ResourceGroup& group) {
  if (group.memoryLimit == 0) return;
  if (const auto cgroup = FindDelegatedCgroup()) groupProcesses_ = OpenCgroup(*cgroup, group);
  launch.groupProcesses = groupProcesses_.Get();
  // Also the way out when the control group refuses the child.
  launch.limitData = getrlimit(RLIMIT_DATA, &launch.dataLimit) == 0;
  launch.dataLimit.rlim_max = std::min<rlim_t>(launch.dataLimit.rlim_max, group.memoryLimit);
  launch.dataLimit.rlim_cur = launch.dataLimit.rlim_max;
}

}  // namespace

Child Spawn(const std::string& commandLine, const SpawnOptions& options) {
  Reaper::Instance();
  Preparation preparation(commandLine, options);
  auto [pid, handle] = StartChild(preparation.launch);
  return {pid, std::move(handle), preparation.TakeUsage()};
}

void SpawnDetached(const std::string& commandLine, const SpawnOptions& options, EndObserver onEnd) {
  Reaper& reaper = Reaper::Instance();
  Preparation preparation(commandLine, options);
  preparation.launch.newSession = true;
  auto [pid, handle] = StartDetached(preparation.launch);
  auto usage = preparation.TakeUsage();
  if (!usage && !onEnd) return;
  reaper.Adopt(
      {pid, std::move(handle), std::move(usage), Reaper::Kind::kDetached, std::move(onEnd)});
}

}  // namespace PcoreCtl
