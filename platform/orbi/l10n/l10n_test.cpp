#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "orbi/l10n/bundle.h"
#include "orbi/l10n/errors.h"
#include "orbi/l10n/format.h"
#include "orbi/l10n/localizer.h"
#include "orbi/std/errors.h"

namespace Orbi::L10n {
namespace {

using boost::system::error_code;

TEST(LocalizationBundle, ReadsCataloguesOrRefusesThemWhole) {
  const std::pair<std::string, LocalizationBundle::Texts> good[] = {
      {"a.b = \"text {1}\"\n; comment\n# comment\n\n c=plain; text \r\n",
       {{"a.b", "text {1}"}, {"c", "plain; text"}}},
      {"\xEF\xBB\xBF a = \"say \\\"x\\\"\\n\\t\\\\\"", {{"a", "say \"x\"\n\t\\"}}},
      {"a = \"with = sign\"", {{"a", "with = sign"}}},
      {"", {}},
  };
  for (const auto& [catalogue, texts] : good) {
    std::istringstream stream(catalogue);
    error_code ec;
    EXPECT_EQ(LocalizationBundle::LoadIniFile(stream, ec), texts);
    EXPECT_FALSE(ec) << catalogue;
  }
  const std::string bad[] = {
      "a = \"open",
      "a = \"closed\" more",
      "a = \"\\x\"",
      "a = \"\\",
      "no equals sign",
      "= \"text\"",
      "[section]\na = \"text\"",
      "a = \"1\"\na = \"2\"",
      "a = \"\xFF\"",
      "a = " + std::string(LocalizationBundle::kMaxCatalogueBytes, 'x'),
  };
  for (const std::string& catalogue : bad) {
    std::istringstream stream(catalogue);
    error_code ec;
    EXPECT_TRUE(LocalizationBundle::LoadIniFile(stream, ec).empty());
    EXPECT_EQ(ec, LocalizationError::kBundleNotLoaded) << catalogue.substr(0, 40);
  }
}

TEST(LocalizationBundle, ReaderSeesTheOldTextsOrTheNew) {
  LocalizationBundle bundle;
  bundle.AddLocale("en", {{"id", "0"}});
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    for (int i = 1; i <= 2000; ++i) bundle.AddLocale("en", {{"id", std::to_string(i)}});
    stop = true;
  });
  int last = 0;
  bool inOrder = true;
  while (!stop) {
    const auto text = bundle.Find("en_US", "id");
    const int seen = text ? std::stoi(*text) : -1;
    inOrder = inOrder && seen >= last;
    last = seen;
  }
  writer.join();
  EXPECT_TRUE(inOrder);
  EXPECT_EQ(bundle.Find("en", "id"), "2000");
}

TEST(FormatMessage, FillsArgumentsOrTellsWhyNot) {
  const struct {
    const char* text;
    std::vector<std::string> args;
    const char* filled;
    error_code ec;
  } cases[] = {
      {"{2} before {1}", {"a", "b"}, "b before a", {}},
      {"'{1}'", {"{2}"}, "'{2}'", {}},
      {"a { b } { {1", {}, "a { b } { {1", {}},
      {"{{1}}", {"a"}, "{a}", {}},
      {"{2}", {"a"}, "", FormatError::kTooManySpecifiers},
      {"{}", {"a"}, "", FormatError::kEmptySpecifier},
      {"{name}", {"a"}, "", FormatError::kArgumentNotFound},
      {"{0}", {"a"}, "", FormatError::kArgumentNotFound},
      {"{99999999999999999999}", {"a"}, "", FormatError::kArgumentNotFound},
  };
  for (const auto& c : cases) {
    error_code ec;
    EXPECT_EQ(FormatMessage(c.text, c.args, ec), c.filled);
    EXPECT_EQ(ec, c.ec) << c.text << ": " << ec.message();
  }
}

TEST(PreferredLocale, IsTheClientsFirstWish) {
  for (const char* header : {"de-DE", "fr;q=0.5, de-DE;q=0.9 , en;q=0.9", ", ,de-DE"}) {
    error_code ec;
    EXPECT_EQ(PreferredLocale(header, ec), "de_DE") << header;
    EXPECT_FALSE(ec) << header;
  }
  const std::pair<const char*, bool> none[] = {
      {"", true},        {"fr;q=0, *;q=0.1", true}, {"fr;q=2", false}, {"fr;q=0.1234", false},
      {"fr;x=1", false}, {"fr/de", false},          {"de de", false},
  };
  for (const auto& [header, good] : none) {
    error_code ec;
    EXPECT_EQ(PreferredLocale(header, ec), "en_US") << header;
    EXPECT_EQ(!ec, good) << header;
  }
}

TEST(Localizer, WordsErrorsInTheClientsLanguage) {
  const auto bundle = std::make_shared<LocalizationBundle>();
  bundle->AddLocale("en_US", {{"gone", "{1} is gone."}});
  bundle->AddLocale("de", {{"gone", "alt"}, {"broken", "{7}"}});
  bundle->AddLocale("de", {{"gone", "{1} ist weg."}});
  bundle->AddLocale("de_AT", {{"gone", "{1} ist furt."}});
  const Localizer localizer("en_US", bundle);
  const struct {
    const char* id;
    const char* locale;
    std::optional<std::string> localized;
    error_code ec;
  } cases[] = {
      {"gone", "de_CH", "X ist weg.", {}},
      {"gone", "de_AT", "X ist furt.", {}},
      {"gone", "xx", "X is gone.", LocalizationError::kLocaleNotSupported},
      {"other", "de", std::nullopt, {}},
      {"broken", "de_AT", std::nullopt, LocalizationError::kErrorValueNotLocalized},
  };
  for (const auto& c : cases) {
    auto error = Com::Tessel::Orbi::Std::Errors::NotFound({{c.id, "default", {"X"}, {}}});
    error_code ec;
    localizer.Localize(error, c.locale, ec);
    EXPECT_EQ(ec, c.ec) << ec.message();
    const auto* list = error.Find("messages")->As<Data::List>();
    EXPECT_EQ(Data::LocalizableMessage::FromValue(list->items[0])->localized, c.localized);
  }
}

}  // namespace
}  // namespace Orbi::L10n
