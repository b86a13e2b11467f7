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

TEST(LocalizationBundle, ReadsCatalogues) {
  const struct {
    std::string catalogue;
    LocalizationBundle::Texts texts;
    bool good;
  } cases[] = {
      {"a.b = \"text {1}\"\n; comment\n# comment\n\n c=plain; text \r\n",
       {{"a.b", "text {1}"}, {"c", "plain; text"}},
       true},
      {"\xEF\xBB\xBF"
       "a = \"say \\\"x\\\"\\n\\t\\\\\"",
       {{"a", "say \"x\"\n\t\\"}},
       true},
      {"a = \"with = sign\"", {{"a", "with = sign"}}, true},
      {"", {}, true},
      {"a = \"open", {}, false},
      {"a = \"closed\" more", {}, false},
      {"a = \"\\x\"", {}, false},
      {"a = \"\\", {}, false},
      {"no equals sign", {}, false},
      {"= \"text\"", {}, false},
      {"[section]\na = \"text\"", {}, false},
      {"a = \"1\"\na = \"2\"", {}, false},
      {"a = \"\xFF\"", {}, false},
      {"a = " + std::string(LocalizationBundle::kMaxCatalogueBytes, 'x'), {}, false},
  };
  for (const auto& c : cases) {
    std::istringstream stream(c.catalogue);
    error_code ec;
    EXPECT_EQ(LocalizationBundle::LoadIniFile(stream, ec), c.texts);
    EXPECT_EQ(ec == LocalizationError::kBundleNotLoaded, !c.good) << c.catalogue.substr(0, 40);
  }
}

TEST(LocalizationBundle, LooksInTheLocaleThenInItsLanguage) {
  LocalizationBundle bundle;
  bundle.AddLocale("de", {{"a", "alt"}, {"b", "b"}});
  bundle.AddLocale("de_AT", {{"a", "oida"}});
  bundle.AddLocale("de", {{"a", "neu"}});
  EXPECT_EQ(bundle.Find("de", "a"), "neu");
  EXPECT_EQ(bundle.Find("de", "b"), "b");
  EXPECT_EQ(bundle.Find("de_AT", "a"), "oida");
  EXPECT_EQ(bundle.Find("de_AT", "b"), "b");
  EXPECT_EQ(bundle.Find("fr", "a"), std::nullopt);

  LocalizationBundle other;
  other.AddLocale("fr", {{"a", "nouveau"}});
  bundle.Replace(other);
  EXPECT_EQ(bundle.Find("fr", "a"), "nouveau");
  EXPECT_EQ(bundle.Find("de", "a"), std::nullopt);
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
  bool in_order = true;
  while (!stop) {
    const auto text = bundle.Find("en_US", "id");
    const int seen = text ? std::stoi(*text) : -1;
    in_order = in_order && seen >= last;
    last = seen;
  }
  writer.join();
  EXPECT_TRUE(in_order);
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
  const struct {
    const char* header;
    const char* locale;
    bool good;
  } cases[] = {
      {"de-DE", "de_DE", true},           {"fr;q=0.5, de-DE;q=0.9 , en;q=0.9", "de_DE", true},
      {"fr;q=0, *;q=0.1", "en_US", true}, {"", "en_US", true},
      {", ,zh_CN", "zh_CN", true},        {"fr;q=2", "en_US", false},
      {"fr;q=0.1234", "en_US", false},    {"fr;x=1", "en_US", false},
      {"fr/de", "en_US", false},          {"de de", "en_US", false},
  };
  for (const auto& c : cases) {
    error_code ec;
    EXPECT_EQ(PreferredLocale(c.header, ec), c.locale) << c.header;
    EXPECT_EQ(ec == LocalizationError::kIncorrectHeader, !c.good) << c.header;
  }
}

TEST(Localizer, WordsErrorsInTheClientsLanguage) {
  const auto bundle = std::make_shared<LocalizationBundle>();
  bundle->AddLocale("en_US", {{"gone", "{1} is gone."}});
  bundle->AddLocale("de", {{"gone", "{1} ist weg."}, {"broken", "{7}"}});
  const Localizer localizer("en_US", bundle);
  const struct {
    const char* id;
    const char* locale;
    std::optional<std::string> localized;
    error_code ec;
  } cases[] = {
      {"gone", "de_AT", "X ist weg.", {}},
      {"gone", "xx", "X is gone.", LocalizationError::kLocaleNotSupported},
      {"other", "de", std::nullopt, {}},
      {"broken", "de", std::nullopt, LocalizationError::kErrorValueNotLocalized},
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
