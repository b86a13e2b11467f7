#include "configuration/messages/translator.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "configuration/messages/config_manager_messages.h"

namespace LifeCycle {
namespace {

namespace fs = boost::filesystem;

constexpr char kKnownId[] = "com.tessel.ryx.settings.apply.plugin.failed";

/// The sandboxed host's configuration modules.
class TranslatorTest : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(root_); }
  void TearDown() override {
    fs::remove_all(root_);
    GetTranslator()->Replace({});
  }

  void Write(const std::string& name, const std::string& text) const {
    const fs::path path = root_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path.string()) << text;
  }
  static std::optional<std::string> Text(const std::string& id) {
    return GetTranslator()->Find("en", id);
  }

  const fs::path root_ = "/usr/lib/tessel/configmanager/apply_modules";
};

TEST_F(TranslatorTest, LoadsCataloguesAtAnyDepthAndNothingElse) {
  Write("top.zmsg", "top = \"Top.\"\n");
  Write("time/ntp/deep.zmsg", "deep = \"Deep.\"\n");
  Write("case.ZMSG", "case = \"Case.\"\n");
  Write("backup.zmsg.bak", "backup = \"Backup.\"\n");
  Write("folder.zmsg/inner.txt", "inner = \"Inner.\"\n");
  Write("broken.zmsg", "broken = \"no end\n");
  SetUpTranslator();
  EXPECT_EQ(Text("top"), "Top.");
  EXPECT_EQ(Text("deep"), "Deep.");
  for (const char* id : {"case", "backup", "inner", "broken"}) EXPECT_FALSE(Text(id)) << id;
}

TEST_F(TranslatorTest, CatalogueGoesBeforeTheBuiltInTexts) {
  fs::remove_all(root_);
  SetUpTranslator();
  EXPECT_EQ(ConfigManagerMessageText(kKnownId), "Apply plugin '{1}' failed.");
  EXPECT_EQ(ConfigManagerMessageText("unknown"), "Unknown message.");
  Write("a.zmsg", std::string(kKnownId) + " = \"Plugin {1} broke.\"\n");
  SetUpTranslator();
  EXPECT_EQ(ConfigManagerMessage(kKnownId, {"ntp"}).default_message, "Plugin ntp broke.");
}

}  // namespace
}  // namespace LifeCycle
