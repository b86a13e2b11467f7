#include "configuration/messages/translator.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "configuration/messages/api_errors.h"
#include "configuration/messages/config_manager_messages.h"
#include "configuration/messages/translations.h"
#include "orbi/data/message.h"

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

TEST_F(TranslatorTest, AnswersAreInTheLanguagesOfTheTranslations) {
  const fs::path messages = "/usr/lib/tessel/lifecycle/messages";
  const auto write = [&](const std::string& language, const std::string& name,
                         const std::string& text) {
    fs::create_directories(messages / language);
    std::ofstream((messages / language / name).string()) << text;
  };
  const auto localizer = GetAnswerLocalizer();
  const auto answer = [&](const char* locale) {
    auto error = ApiError(Com::Tessel::Orbi::Std::Errors::NotFound,
                          "com.tessel.ryx.task.notfound.error", {"T"});
    boost::system::error_code ec;
    localizer->Localize(error, locale, Orbi::L10n::Unworded::kDefaultText, ec);
    return Orbi::Data::LocalizableMessage::FromValue(
               error.Find("messages")->As<Orbi::Data::List>()->items[0])
        ->localized;
  };
  write("de", "kestreld.zmsg", "com.tessel.ryx.task.notfound.error = \"Keine Aufgabe {1}.\"\n");
  write("de", "more.zmsg", "orbi.provider.interface.unknown = \"Keine Schnittstelle {1}.\"\n");
  write("xx", "kestreld.zmsg", "com.tessel.ryx.task.notfound.error = \"?\"\n");
  LoadTranslations();
  EXPECT_EQ(answer("de_CH"), "Keine Aufgabe T.");
  EXPECT_EQ(answer("en_US"), "Task with given identifier 'T' is not found.");
  EXPECT_FALSE(localizer->Supports("xx"));
  Write("a.zmsg", "com.tessel.ryx.task.notfound.error = \"No {1}.\"\n");
  SetUpTranslator();
  EXPECT_EQ(answer("en_US"), "No T.");
  fs::remove_all(messages);
  LoadTranslations();
  EXPECT_FALSE(localizer->Supports("de"));
  EXPECT_EQ(answer("de"), "No T.");
}

}  // namespace
}  // namespace LifeCycle
