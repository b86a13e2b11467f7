#pragma once

#include "configmanager/task_input.h"

namespace RyxConfigManager {

/// The turn to change the configuration: one operation of this process has it at a time, from
/// reading what is effective to storing what became of it. Otherwise two that change one module
/// would each undo what the other does. Not re-entrant; whoever has it waits for nobody else who
/// changes.
class ChangeTurn {
 public:
  /// Waits until nobody has the turn; may be called from any thread.
  /// @param task  may be nullptr
  /// @throws Aborted  the task is to end
  explicit ChangeTurn(const TaskInput* task);
  ChangeTurn(const ChangeTurn&) = delete;
  ChangeTurn& operator=(const ChangeTurn&) = delete;
  ~ChangeTurn();
};

}  // namespace RyxConfigManager
