#include "pcore/reaper.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <iterator>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "pcore/host_ctl_exception.h"
#include "pcore/wait_for_child.h"
#include "tesselibs/log.h"
#include "tesselibs/signals_blocked.h"

namespace PcoreCtl {

namespace {

constexpr int kSampleMilliseconds = 1000;
constexpr std::chrono::milliseconds kPauseWithoutMemory{10};

bool HasEnded(const UniqueFd& handle) {
  pollfd ended{handle.Get(), POLLIN, 0};
  return poll(&ended, 1, 0) == 1;
}

/// Looks at what a process that is not our child has used so far.
void Sample(Reaper::Process& process) {
  if (!process.usage) return;
  Usage sampled = *process.usage;
  sampled.Sample(process.pid);
  // Once the process has ended, its id may be another's.
  if (!HasEnded(process.handle)) process.usage = std::move(sampled);
}

}  // namespace

Reaper& Reaper::Instance() {
  static Reaper reaper;
  return reaper;
}

Reaper::Reaper() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) throw HostCtl::Lib::HostCtlException(errno, "Cannot set up the reaper");
}

Reaper::~Reaper() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  Wake();
  thread_.join();
}

void Reaper::Adopt(Process process) {
  if (process.kind == Kind::kDetached) Sample(process);
  {
    const std::lock_guard lock(mutex_);
    arrivals_.push_back(std::move(process));
    if (!thread_.joinable()) StartThread();
  }
  Wake();
}

void Reaper::StartThread() {
  const SignalsBlocked blocked;
  try {
    thread_ = std::thread(&Reaper::Run, this);
  } catch (const std::system_error& error) {
    // The next process that comes tries again.
    Log_Level(LogLevel::kError, "Cannot start the reaper: %s\n", error.what());
  }
}

void Reaper::Wake() const { eventfd_write(wake_.Get(), 1); }

void Reaper::Run() {
  for (;;) {
    try {
      if (!TakeArrivals()) return;
      std::erase_if(processes_, SeeToEnd);
      if (!WaitForEvents()) continue;
      eventfd_t ignored = 0;
      eventfd_read(wake_.Get(), &ignored);
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(kPauseWithoutMemory);
    }
  }
}

bool Reaper::TakeArrivals() {
  const std::lock_guard lock(mutex_);
  if (stopping_) return false;
  processes_.reserve(processes_.size() + arrivals_.size());
  std::move(arrivals_.begin(), arrivals_.end(), std::back_inserter(processes_));
  arrivals_.clear();
  return true;
}

bool Reaper::WaitForEvents() const {
  std::vector<pollfd> events = {{wake_.Get(), POLLIN, 0}};
  int timeout = -1;
  for (const Process& process : processes_) {
    events.push_back({process.handle.Get(), POLLIN, 0});
    if (process.kind == Kind::kDetached) timeout = kSampleMilliseconds;
  }
  return poll(events.data(), events.size(), timeout) > 0 && events.front().revents != 0;
}

/// @return whether nothing is left to be done for the process
bool Reaper::SeeToEnd(Process& process) noexcept {
  try {
    return TrySeeToEnd(process);
  } catch (const std::bad_alloc&) {
    return false;  // the next look tries again
  }
}

bool Reaper::TrySeeToEnd(Process& process) {
  if (process.handle) {
    if (!HasEnded(process.handle)) {
      if (process.kind == Kind::kDetached) Sample(process);
      return false;
    }
    if (process.kind == Kind::kChild) {
      int status = 0;
      WaitForChild(process.pid, process.usage, status);
      return true;
    }
    if (process.usage) process.usage->Log(process.pid);
    process.handle.Reset();  // from here on only its observer is waited for
  }
  return !process.onEnd || process.onEnd();
}

}  // namespace PcoreCtl
