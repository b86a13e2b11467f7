#pragma once

#include <string>

/// Feature switches of the host, from the INI file /etc/tessel/feature-states.
enum class Feature {
  kTaskScheduler,  ///< "task_scheduler": in-process tasks are run; on by default
  kTaskDatabase,   ///< "task_database": tasks are kept in the task database; off by default
};

/// Reads the switches. Called once at start-up, before threads that ask for any are started. Silent
/// about a missing file; a value other than "true" or "false" is logged at level 3 and leaves that
/// switch at its default.
void FeatureState_InitSilentMode(const std::string& path = "/etc/tessel/feature-states");

/// @return whether the feature is switched on. Callable from any thread.
[[nodiscard]] bool FeatureState_IsEnabled(Feature feature);
