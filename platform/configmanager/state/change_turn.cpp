#include "configmanager/state/change_turn.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "configmanager/task_progress.h"

namespace RyxConfigManager {
namespace {

/// How often one that waits is asked whether it is to end.
constexpr std::chrono::milliseconds kAbortPollInterval{50};

struct Turn {
  std::mutex mutex;  ///< guards `taken`
  std::condition_variable left;
  bool taken = false;
};

Turn& TheTurn() {
  static Turn turn;
  return turn;
}

}  // namespace

ChangeTurn::ChangeTurn(const TaskInput* task) {
  Turn& turn = TheTurn();
  std::unique_lock lock(turn.mutex);
  while (!turn.left.wait_for(lock, kAbortPollInterval, [&turn] { return !turn.taken; })) {
    lock.unlock();
    ThrowIfAborted(task);
    lock.lock();
  }
  turn.taken = true;
}

ChangeTurn::~ChangeTurn() {
  Turn& turn = TheTurn();
  const std::lock_guard lock(turn.mutex);
  turn.taken = false;
  turn.left.notify_one();
}

}  // namespace RyxConfigManager
