#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "orbi/data/message.h"
#include "orbi/l10n/bundle.h"
#include "orbi/l10n/errors.h"
#include "orbi/l10n/format.h"
#include "orbi/l10n/localizer.h"

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

std::shared_ptr<LocalizationBundle> TestBundle() {
  auto bundle = std::make_shared<LocalizationBundle>();
  bundle->AddLocale("en_US", {{"gone", "{1} is gone."}});
  bundle->AddLocale("de", {{"gone", "alt"}, {"broken", "{7}"}});
  bundle->AddLocale("de", {{"gone", "{1} ist weg."}});
  bundle->AddLocale("de_AT", {{"gone", "{1} ist furt."}});
  bundle->AddLocale("zh_TW", {});
  return bundle;
}

TEST(PreferredLocale, IsTheBestThatThereIs) {
  const Localizer localizer("en_US", {TestBundle()});
  const error_code good;
  const error_code unsupported = LocalizationError::kLocaleNotSupported;
  const error_code incorrect = LocalizationError::kIncorrectHeader;
  std::string endless;
  for (int i = 0; i < 65; ++i) endless += "xx,";
  const struct {
    std::string header;
    const char* locale;
    error_code ec;
  } cases[] = {
      {"de-DE", "de_DE", good},
      {"fr, de-CH;q=0.2", "de_CH", good},
      {"fr;q=0.5, de;q=0.9 , en;q=0.9", "de", good},
      {"en;q=0.8,DE-at", "de_AT", good},
      {", ,de_DE.UTF-8", "de_DE", good},
      {"ZH-hant-tw, zh-tw;Q=0.1", "zh_TW", good},
      {"en-GB, de", "en_GB", good},
      {"", "en_US", good},
      {"fr, *;q=0.1, de;q=0.05", "en_US", good},
      {"de;q=0, *;q=0.1", "en_US", good},
      {"de;q=0", "en_US", unsupported},
      {"fr, zh, d", "en_US", unsupported},
      {"de;q=2", "en_US", incorrect},
      {"de;q=0.1234", "en_US", incorrect},
      {"de;x=1", "en_US", incorrect},
      {"de/fr", "en_US", incorrect},
      {"de de", "en_US", incorrect},
      {endless + "de", "en_US", incorrect},
  };
  for (const auto& c : cases) {
    error_code ec;
    EXPECT_EQ(localizer.PreferredLocale(c.header, ec), c.locale) << c.header;
    EXPECT_EQ(ec, c.ec) << c.header;
  }
}

TEST(Localizer, WordsWhatGoesOutInTheClientsLanguage) {
  const Localizer localizer("en_US", {TestBundle()});
  const error_code good;
  const struct {
    const char* id;
    const char* locale;
    Unworded unworded;
    std::optional<std::string> before;
    std::optional<std::string> localized;
    error_code ec;
  } cases[] = {
      {"gone", "de_CH", Unworded::kLeft, {}, "X ist weg.", good},
      {"gone", "de_AT", Unworded::kDefaultText, "X is gone.", "X ist furt.", good},
      {"gone", "xx", Unworded::kLeft, {}, "X is gone.", LocalizationError::kLocaleNotSupported},
      {"other", "de", Unworded::kLeft, {}, {}, good},
      {"other", "de", Unworded::kDefaultText, {}, "default", good},
      {"other", "en_GB", Unworded::kDefaultText, "earlier", "earlier", good},
      {"broken", "de_AT", Unworded::kLeft, {}, {}, LocalizationError::kErrorValueNotLocalized},
      {"broken",
       "de",
       Unworded::kDefaultText,
       {},
       "default",
       LocalizationError::kErrorValueNotLocalized},
  };
  for (const auto& c : cases) {
    const Data::Value message =
        Data::LocalizableMessage{c.id, "default", {"X"}, c.before}.ToValue();
    const Data::LocalizableMessage worded{c.id, "default", {"X"}, c.localized};
    // Wherever it stands, and without changing what others hold.
    const auto place = [](const Data::Value& inner) {
      Data::ErrorValue error{"e", {}};
      error.Add("messages", Data::List{{inner}, false}).Add("data", Data::Some(inner));
      return Data::Value(Data::Structure{"s", {{"error", Data::Some(Data::Value(error))}}});
    };
    const Data::Value given = place(message);
    Data::Value out = given;
    error_code ec;
    localizer.Localize(out, c.locale, c.unworded, ec);
    EXPECT_EQ(ec, c.ec) << ec.message();
    EXPECT_EQ(out, place(worded.ToValue())) << c.id << " " << c.locale;
    EXPECT_EQ(given, place(message));
  }
}

}  // namespace
}  // namespace Orbi::L10n
