#include "orbi/l10n/bundle.h"

#include <array>
#include <sstream>
#include <utility>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "orbi/l10n/errors.h"
#include "tesselibs/utf8.h"

namespace Orbi::L10n {
namespace {

/// Stops soon after there is more than a catalogue may have.
std::string ReadBounded(std::istream& stream) {
  std::string text;
  std::array<char, 16 * 1024> part;
  while (text.size() <= LocalizationBundle::kMaxCatalogueBytes && stream) {
    stream.read(part.data(), part.size());
    text.append(part.data(), static_cast<std::size_t>(stream.gcount()));
  }
  return text;
}

/// @return nothing when a quote is left open or a backslash stands before something unknown
std::optional<std::string> Unquote(const std::string& text) {
  if (text.empty() || text[0] != '"') return text;
  std::string plain;
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '"') return i + 1 == text.size() ? std::optional(plain) : std::nullopt;
    if (text[i] != '\\') {
      plain += text[i];
      continue;
    }
    static constexpr std::string_view kLetters = "\"\\nt";
    static constexpr std::string_view kCharacters = "\"\\\n\t";
    const std::size_t letter = ++i < text.size() ? kLetters.find(text[i]) : kLetters.npos;
    if (letter == kLetters.npos) return std::nullopt;
    plain += kCharacters[letter];
  }
  return std::nullopt;
}

/// @throws boost::property_tree::ini_parser_error
std::optional<LocalizationBundle::Texts> Parse(const std::string& catalogue) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  std::istringstream lines(
      catalogue.starts_with(kByteOrderMark) ? catalogue.substr(kByteOrderMark.size()) : catalogue);
  boost::property_tree::ptree tree;
  boost::property_tree::read_ini(lines, tree);

  LocalizationBundle::Texts texts;
  for (const auto& [id, node] : tree) {
    auto text = Unquote(node.data());
    if (id.empty() || !node.empty() || !text) return std::nullopt;
    texts.emplace(id, std::move(*text));
  }
  return texts;
}

/// "zh_Hant" for "zh_Hant_TW"; nothing for "zh".
std::string_view Broader(std::string_view locale) {
  const std::size_t end = locale.rfind('_');
  return locale.substr(0, end == locale.npos ? 0 : end);
}

}  // namespace

LocalizationBundle::Texts LocalizationBundle::LoadIniFile(std::istream& stream,
                                                          boost::system::error_code& ec) {
  ec.clear();
  const std::string catalogue = ReadBounded(stream);
  if (!stream.bad() && catalogue.size() <= kMaxCatalogueBytes && Utf8::IsValid(catalogue)) {
    try {
      if (auto texts = Parse(catalogue)) return std::move(*texts);
    } catch (const boost::property_tree::ini_parser_error&) {
      // Told below, as everything else that is wrong with a catalogue.
    }
  }
  ec = LocalizationError::kBundleNotLoaded;
  return {};
}

void LocalizationBundle::AddLocale(const std::string& locale, Texts texts) {
  const std::lock_guard lock(writers_);
  auto locales = std::make_shared<Locales>(*Snapshot());
  Texts& known = (*locales)[locale];
  texts.merge(known);  // leaves in `known` only what the new texts replace
  known = std::move(texts);
  Publish(std::move(locales));
}

void LocalizationBundle::Replace(const LocalizationBundle& other) {
  const std::lock_guard lock(writers_);
  Publish(other.Snapshot());
}

std::vector<std::shared_ptr<const LocalizationBundle::Texts>> LocalizationBundle::TextsFor(
    std::string_view locale) const {
  std::vector<std::shared_ptr<const Texts>> found;
  const auto locales = Snapshot();
  for (; !locale.empty(); locale = Broader(locale)) {
    const auto texts = locales->find(locale);
    if (texts != locales->end()) found.emplace_back(locales, &texts->second);
  }
  return found;
}

bool LocalizationBundle::Supports(std::string_view locale) const {
  return !TextsFor(locale).empty();
}

std::optional<std::string> LocalizationBundle::Find(std::string_view locale,
                                                    std::string_view id) const {
  for (const auto& texts : TextsFor(locale)) {
    if (const auto text = texts->find(id); text != texts->end()) return text->second;
  }
  return std::nullopt;
}

std::shared_ptr<const LocalizationBundle::Locales> LocalizationBundle::Snapshot() const {
  const std::lock_guard lock(mutex_);
  return locales_;
}

void LocalizationBundle::Publish(std::shared_ptr<const Locales> locales) {
  const std::lock_guard lock(mutex_);
  locales_.swap(locales);  // the old texts are freed after the lock
}

}  // namespace Orbi::L10n
