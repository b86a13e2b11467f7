#include "tesselibs/feature_state.h"

#include <algorithm>
#include <array>
#include <map>

#include "tesselibs/ini_file.h"
#include "tesselibs/log.h"

namespace {

struct FeatureState {
  Feature feature;
  const char* name;
  bool enabledByDefault;
  bool enabled;
};

// Written at start-up, only read afterwards.
std::array features = {
    FeatureState{Feature::kTaskScheduler, "task_scheduler", true, true},
    FeatureState{Feature::kTaskDatabase, "task_database", false, false},
};

}  // namespace

void FeatureState_InitSilentMode(const std::string& path) {
  const auto settings = ReadIniFile(path);
  for (FeatureState& state : features) {
    const auto setting = settings.find(state.name);
    state.enabled = state.enabledByDefault;
    if (setting == settings.end()) continue;
    if (setting->second == "true" || setting->second == "false") {
      state.enabled = setting->second == "true";
    } else {
      Log_Level(LogLevel::kError, "%s: %s is neither true nor false\n", path.c_str(), state.name);
    }
  }
}

bool FeatureState_IsEnabled(Feature feature) {
  return std::find_if(features.begin(), features.end(),
                      [feature](const FeatureState& state) { return state.feature == feature; })
      ->enabled;
}
