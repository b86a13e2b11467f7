#include "lifecycle/turn.h"

#include <condition_variable>
#include <mutex>

namespace LifeCycle {
namespace {

constexpr std::chrono::seconds kLongestWait{1};

std::mutex mutex;  // guards what follows
std::condition_variable freed;
bool taken = false;
Turn::Clock::time_point foundBusy;

}  // namespace

Turn::Turn() {
  std::unique_lock lock(mutex);
  mine_ = freed.wait_until(lock, begun_ + kLongestWait, [] { return !taken; });
  if (mine_) taken = true;
}

Turn::~Turn() {
  if (!mine_) return;
  const std::lock_guard lock(mutex);
  taken = false;
  freed.notify_one();
}

void Turn::ReportBusy() {
  const std::lock_guard lock(mutex);
  foundBusy = Clock::now();
}

bool Turn::NeighbourFoundItBusy() const {
  const std::lock_guard lock(mutex);
  return foundBusy > begun_;
}

}  // namespace LifeCycle
