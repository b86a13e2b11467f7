#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "configmanager/config_manager.h"
#include "configmanager/testing/test_modules.h"
#include "tesselibs/testing/captured_log.h"

namespace RyxConfigManager {
namespace {

using testing::ElementsAreArray;

class ValidationTest : public testing::Test {
 protected:
  /// @return what was reported: "PATH ID ARGUMENT..." of violations, "! ID ARGUMENT" of failures
  static std::vector<std::string> Run(const std::string& profile, bool schemaOnly = false,
                                      const TaskInput* task = nullptr) {
    Document document = ConfigStoreDocument::CreateDocument(R"({"profile":)" + profile + "}");
    const auto schema = GenerateHostDocumentSchema(document);
    CreateMergedDocument(schema, document);
    ValidationResult result;
    Validate(document, schema, result, schemaOnly, task);
    EXPECT_EQ(result.pluginFailure.empty(), result.pluginErrors.empty());
    std::vector<std::string> lines;
    const auto add = [&](const std::string& place, const ErrorInfo& error) {
      lines.push_back(place + ' ' + error.id);
      for (const std::string& argument : error.args) lines.back() += ' ' + argument;
    };
    for (const auto& error : result.errors) add(error.path, error);
    for (const auto& error : result.pluginErrors) add("!", error);
    EXPECT_EQ(result.valid(), lines.empty());
    return lines;
  }

  TestModules modules_;
  CapturedLog log_;
};

constexpr char kTwo[] =
    R"({"net":{"lan":{"profiles":[{"name":"p"}]}},"time":{"ntp":{"servers":{"server":["a"]}}}})";

TEST_F(ValidationTest, ModulesJudgeWhatTheSchemaTakes) {
  constexpr char kRefusal[] = R"({"validate":{"refuse":"com.example.no"}})";
  constexpr char kFailure[] = R"({"validate":{"exit":1}})";
  const std::string prefix = "com.tessel.ryx.settings.validation.";
  const struct {
    const char* behaviour;  // of the module "time"
    std::string profile;
    bool schemaOnly;
    std::vector<std::string> expected;
  } cases[] = {
      {"", kTwo, false, {}},
      {kRefusal, kTwo, false, {R"(/time/ntp com.example.no {"server":["b"]})"}},
      {kRefusal, kTwo, true, {}},
      // What is effective already is not judged again.
      {kRefusal, R"({"time":{"ntp":{"servers":{"server":["b"]}}}})", false, {}},
      {kFailure, kTwo, false, {"! " + prefix + "plugin.failed time"}},
      {R"({"validate":{"print":"{"}})",
       kTwo,
       false,
       {"! " + prefix + "plugin.unexpected.error time"}},
      // What cannot be read is still judged.
      {R"({"read":{"exit":1},"validate":{"exit":1}})",
       kTwo,
       false,
       {"! " + prefix + "plugin.failed time"}},
      {kFailure,
       R"({"time":{"ntp":{"servers":{"server":"a"}}}})",
       false,
       {"/profile/time/ntp/servers/server " + prefix + "type.check.failure array"}},
  };
  modules_.SetState("time", R"({"ntp/servers":{"server":["b"]}})");
  for (const auto& [behaviour, profile, schemaOnly, expected] : cases) {
    modules_.SetBehaviour("time", behaviour);
    EXPECT_THAT(Run(profile, schemaOnly), ElementsAreArray(expected)) << behaviour << profile;
  }
}

TEST_F(ValidationTest, ReportsProgressAndEndsWhenAsked) {
  std::vector<unsigned> progress;
  TaskInput task{"t", 10, 90, [&](unsigned percent) { progress.push_back(percent); }, {}};
  EXPECT_TRUE(Run(kTwo, false, &task).empty());
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_GT(progress.size(), 4U);
  EXPECT_GE(progress.front(), 10U);
  EXPECT_EQ(progress.back(), 90U);
  task.isAbortRequested = [&] { return progress.back() > 20; };
  progress.clear();
  EXPECT_THROW(Run(kTwo, false, &task), Aborted);
}

TEST_F(ValidationTest, AModuleThatComesOrGoesCountsAtOnce) {
  const std::string unknown =
      "/profile/net/lan/profiles com.tessel.ryx.settings.validation.schema.not-found "
      "net lan profiles";
  const auto file = std::filesystem::path(kModulesDirectory) / "net/module.json";
  const auto aside = std::filesystem::path(kModulesDirectory) / "net/aside";
  const std::string profile = R"({"net":{"lan":{"profiles":[{"name":"p"}]}}})";
  EXPECT_TRUE(Run(profile).empty());
  EXPECT_EQ(InstalledModules(), InstalledModules());
  std::filesystem::rename(file, aside);
  EXPECT_THAT(Run(profile), ElementsAreArray({unknown}));
  std::filesystem::rename(aside, file);
  EXPECT_TRUE(Run(profile).empty());
}

}  // namespace
}  // namespace RyxConfigManager
