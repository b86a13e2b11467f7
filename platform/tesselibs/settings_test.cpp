#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "tesselibs/feature_state.h"

namespace {

class SettingsTest : public testing::Test {
 protected:
  void TearDown() override { unlink(path_.c_str()); }
  void Write(const std::string& text) const { std::ofstream(path_) << text; }

  const std::string path_ = testing::TempDir() + "settings_test." + std::to_string(getpid());
};

TEST_F(SettingsTest, FeaturesFollowTheFileAndFallBackToTheirDefaults) {
  struct Case {
    const char* text;
    bool scheduler, database;
  };
  const Case cases[] = {
      {"", true, false},
      {"; comment\n# another\ntask_scheduler = false\ntask_database=true\n", false, true},
      {"task_database = true\nunknown = false\n", true, true},
      {"task_scheduler = off\ntask_database = TRUE\n", true, false},
      {"[section]\ntask_scheduler = false\n", true, false},
      {"task_scheduler = false\nno equals sign\n", true, false},
      {"task_scheduler = false\ntask_scheduler = false\n", true, false},
  };
  for (const Case& c : cases) {
    Write(c.text);
    FeatureState_InitSilentMode(path_);
    EXPECT_EQ(FeatureState_IsEnabled(Feature::kTaskScheduler), c.scheduler) << c.text;
    EXPECT_EQ(FeatureState_IsEnabled(Feature::kTaskDatabase), c.database) << c.text;
  }
  unlink(path_.c_str());
  FeatureState_InitSilentMode(path_);
  EXPECT_TRUE(FeatureState_IsEnabled(Feature::kTaskScheduler));
}

}  // namespace
