#pragma once

#include <rapidjson/document.h>

#include <span>
#include <string>

#include "configmanager/module/module.h"
#include "configmanager/module/plugin_answer.h"
#include "configmanager/task_input.h"

/// Asking a module's programs.
namespace RyxConfigManager {

enum class ChangeAction { kAdd, kSet, kDelete };

/// What happens to one setting: a key that is a singleton, or one instance of a key.
struct Change {
  const KeyDefinition* key;
  ChangeAction action;
  std::string instance;                        ///< the instance's id; empty for a singleton
  const rapidjson::Value* oldValue = nullptr;  ///< the effective one; nullptr when there is none
  /// The desired one; nullptr when there is none. With kDelete that is the default.
  const rapidjson::Value* newValue = nullptr;
};

enum class PluginOperation { kValidate, kImpact, kRead, kApply };

/// Runs the module's program for an operation and waits for its answer; a module that has none
/// answers nothing.
///
/// The program runs in a session of its own. When it has not ended at the module's time limit, or
/// the task is to end, it and everything it started is asked to end (SIGTERM) and, when it has not
/// within a second, is ended (SIGKILL). What it leaves running when it ends is ended with it. What
/// it writes to its standard error is logged at level 3.
///
/// A failure is logged at level 2. Its identifier ends in "plugin.failed" when the program said by
/// its exit status that it failed, in "plugin.unexpected.error" when it could not be started,
/// crashed, hung, or answered something that is no answer; its argument is the component. Reading
/// fails with the identifiers of the impact, which it serves.
///
/// Callable from any thread.
/// @param task  may be nullptr
/// @throws Aborted  the task is to end; the program has ended
[[nodiscard]] PluginAnswer RunPlugin(const Module& module, PluginOperation operation,
                                     std::span<const Change> changes, const TaskInput* task);

/// The failure of a program whose answer turned out to mean nothing; logged like any other.
[[nodiscard]] PluginFailure BadAnswer(const Module& module, PluginOperation operation,
                                      const std::string& reason);

}  // namespace RyxConfigManager
