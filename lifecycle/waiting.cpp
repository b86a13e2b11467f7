#include "lifecycle/waiting.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace LifeCycle {
namespace {

std::mutex mutex;  // guards what follows
std::condition_variable stopped;
bool stopping = false;

bool WaitUnlessStopped(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex);
  return !stopped.wait_for(lock, time, [] { return stopping; });
}

std::atomic<Waiter> waiter = WaitUnlessStopped;

}  // namespace

bool Wait(std::chrono::milliseconds time) { return waiter.load()(time); }

void StopWaiting() {
  const std::lock_guard lock(mutex);
  stopping = true;
  stopped.notify_all();
}

Waiter ReplaceWaiter(Waiter replacement) { return waiter.exchange(replacement); }

}  // namespace LifeCycle
