#pragma once

#include <chrono>

namespace LifeCycle {

/// A turn at the records of all tasks among the threads of this process: who has it finds the
/// access lock in the hands of other processes only, and need not poll for it against neighbours.
///
/// It orders, and does not exclude: who has waited for a second goes on without a turn, so that
/// nobody waits for neighbours without end. That is left to the access lock.
class Turn {
 public:
  using Clock = std::chrono::steady_clock;

  /// Waits for the turn.
  Turn();
  /// Lets the next thread have it.
  ~Turn();

  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  /// Tells that the lock is in other hands for long.
  void ReportBusy();
  /// @return whether a neighbour has reported so since this thread began to wait: to look again
  ///         would make each wait as long as all before it
  [[nodiscard]] bool NeighbourFoundItBusy() const;

 private:
  const Clock::time_point begun_ = Clock::now();
  bool mine_ = false;
};

}  // namespace LifeCycle
