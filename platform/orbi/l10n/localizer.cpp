#include "orbi/l10n/localizer.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>
#include <span>
#include <utility>

#include "orbi/l10n/catalogue.h"
#include "orbi/l10n/errors.h"
#include "orbi/l10n/wording.h"
#include "tesselibs/ascii.h"

namespace Orbi::L10n {
namespace {

constexpr std::string_view kBlanks = " \t";

std::string_view Trim(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::string_view NextItem(std::string_view& list, char separator) {
  const std::size_t end = std::min(list.find(separator), list.size());
  const std::string_view item = list.substr(0, end);
  list.remove_prefix(std::min(end + 1, list.size()));
  return Trim(item);
}

/// A quality value in thousandths, or -1 (RFC 9110, section 12.4.2).
int Quality(std::string_view parameter) {
  constexpr int kWhole = 1000;
  if (parameter.empty()) return kWhole;
  if (!parameter.starts_with("q=") && !parameter.starts_with("Q=")) return -1;
  parameter.remove_prefix(2);
  if (parameter.empty() || parameter.size() > std::string_view("0.123").size()) return -1;
  if (parameter.size() > 1 && parameter[1] != '.') return -1;
  std::string digits(1, parameter[0]);
  digits += parameter.substr(std::min<std::size_t>(2, parameter.size()));
  digits.resize(4, '0');
  int thousandths = -1;
  const char* const end = digits.data() + digits.size();
  const auto [last, error] = std::from_chars(digits.data(), end, thousandths);
  return error == std::errc{} && last == end && thousandths <= kWhole ? thousandths : -1;
}

/// A language that a client would take.
struct LanguageRange {
  std::string_view name;
  int quality;  ///< in thousandths
};

/// More than any client names: each is looked for.
constexpr std::size_t kMostRanges = 64;

/// The ranges of an accept-language header, what is preferred first; nothing when it is malformed.
std::optional<std::vector<LanguageRange>> ParseAcceptLanguage(std::string_view header) {
  std::vector<LanguageRange> ranges;
  while (!header.empty()) {
    std::string_view range = NextItem(header, ',');
    if (range.empty()) continue;
    const std::string_view name = NextItem(range, ';');
    const int quality = Quality(Trim(range));
    if (quality < 0 || (name != "*" && !IsLocaleName(name)) || ranges.size() == kMostRanges)
      return std::nullopt;
    ranges.push_back({name, quality});
  }
  std::ranges::stable_sort(ranges, std::greater<>(), &LanguageRange::quality);
  return ranges;
}

std::string_view LanguageOf(std::string_view locale) { return locale.substr(0, locale.find('_')); }

bool IsAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

Localizer::Localizer(std::string locale, Bundles bundles)
    : locale_(std::move(locale)), bundles_(std::move(bundles)) {}

bool Localizer::Supports(std::string_view locale) const {
  return LanguageOf(locale) == LanguageOf(locale_) ||
         std::ranges::any_of(bundles_,
                             [&](const auto& bundle) { return bundle->Supports(locale); });
}

void Localizer::Localize(Data::Value& value, std::string_view locale, Unworded unworded,
                         boost::system::error_code& ec) const {
  ec.clear();
  if (!Supports(locale)) {
    ec = LocalizationError::kLocaleNotSupported;
    locale = locale_;
  }
  std::vector<Wording::Texts> texts;
  for (const auto& bundle : bundles_) {
    for (auto& found : bundle->TextsFor(locale)) texts.push_back(std::move(found));
  }
  Wording wording(std::move(texts), unworded);
  wording.Apply(value);
  if (wording.misfit()) ec = LocalizationError::kErrorValueNotLocalized;
}

void Localizer::Localize(Data::ErrorValue& error, std::string_view locale, Unworded unworded,
                         boost::system::error_code& ec) const {
  Data::Value value(std::move(error));
  Localize(value, locale, unworded, ec);
  error = std::move(*value.As<Data::ErrorValue>());
}

std::string Localizer::PreferredLocale(std::string_view acceptLanguage,
                                       boost::system::error_code& ec) const {
  ec.clear();
  const auto ranges = ParseAcceptLanguage(acceptLanguage);
  if (!ranges) ec = LocalizationError::kIncorrectHeader;
  if (!ranges || ranges->empty()) return locale_;
  for (const auto& [name, quality] : *ranges) {
    if (quality == 0) break;
    if (name == "*") return locale_;
    if (std::string locale = NormalLocale(name); Supports(locale)) return locale;
  }
  ec = LocalizationError::kLocaleNotSupported;
  return locale_;
}

std::shared_ptr<const LocalizationBundle> LocalizerHelpers::GetFrameworkBundle() {
  static const auto framework = [] {
    auto bundle = std::make_shared<LocalizationBundle>();
    bundle->AddLocale(std::string(kDefaultLocale), FrameworkTexts());
    return bundle;
  }();
  return framework;
}

std::shared_ptr<const Localizer> LocalizerHelpers::GetDefaultLocalizer() {
  static const auto localizer = std::make_shared<const Localizer>(
      std::string(kDefaultLocale), Localizer::Bundles{GetFrameworkBundle()});
  return localizer;
}

bool IsLocaleName(std::string_view text) {
  constexpr std::size_t kLongest = 64;
  static constexpr std::string_view kOthers = "_-.@";
  return !text.empty() && text.size() <= kLongest && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           kOthers.find(c) != std::string_view::npos;
  });
}

std::string NormalLocale(std::string_view name) {
  constexpr std::size_t kScript = 4;
  constexpr std::size_t kRegion = 2;
  std::string locale(name.substr(0, name.find_first_of(".@")));
  std::ranges::replace(locale, '-', '_');
  for (std::size_t start = 0; start < locale.size();) {
    const std::size_t end = std::min(locale.find('_', start), locale.size());
    const std::span part(locale.data() + start, end - start);
    const bool letters = std::ranges::all_of(part, IsAlpha);
    const bool region = start != 0 && letters && part.size() == kRegion;
    std::ranges::transform(part, part.begin(), region ? Ascii::ToUpper : Ascii::ToLower);
    if (start != 0 && letters && part.size() == kScript) part[0] = Ascii::ToUpper(part[0]);
    start = end + 1;
  }
  return locale;
}

}  // namespace Orbi::L10n
