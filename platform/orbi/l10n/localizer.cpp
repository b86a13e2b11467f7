#include "orbi/l10n/localizer.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "orbi/l10n/catalogue.h"
#include "orbi/l10n/errors.h"
#include "orbi/l10n/format.h"

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

}  // namespace

Localizer::Localizer(std::string locale, std::shared_ptr<const LocalizationBundle> bundle)
    : locale_(std::move(locale)), bundle_(std::move(bundle)) {}

std::optional<std::string> Localizer::Localize(const Data::LocalizableMessage& message,
                                               std::string_view locale,
                                               boost::system::error_code& ec) const {
  const bool supported = bundle_->Supports(locale);
  const auto text = bundle_->Find(supported ? locale : locale_, message.id);
  if (!text) {
    ec = LocalizationError::kUnknownMessageId;
    return std::nullopt;
  }
  if (text->empty()) {
    ec = LocalizationError::kNoFormatString;
    return std::nullopt;
  }
  std::string filled = FormatMessage(*text, message.args, ec);
  if (ec) return std::nullopt;
  if (!supported) ec = LocalizationError::kLocaleNotSupported;
  return filled;
}

void Localizer::Localize(Data::ErrorValue& error, std::string_view locale,
                         boost::system::error_code& ec) const {
  ec.clear();
  if (!bundle_->Supports(locale)) ec = LocalizationError::kLocaleNotSupported;
  const auto messages = std::ranges::find(error.fields, "messages", &Data::Field::name);
  auto* const list = messages == error.fields.end() ? nullptr : messages->value.As<Data::List>();
  if (!list) return;
  for (Data::Value& item : list->items) {
    auto message = Data::LocalizableMessage::FromValue(item);
    if (!message || message->localized) continue;
    boost::system::error_code problem;
    message->localized = Localize(*message, locale, problem);
    if (message->localized) {
      item = message->ToValue();
    } else if (problem != LocalizationError::kUnknownMessageId) {
      ec = LocalizationError::kErrorValueNotLocalized;
    }
  }
}

std::shared_ptr<const Localizer> LocalizerHelpers::GetDefaultLocalizer() {
  static const auto localizer = [] {
    const auto bundle = std::make_shared<LocalizationBundle>();
    bundle->AddLocale(std::string(kDefaultLocale), FrameworkTexts());
    return std::make_shared<const Localizer>(std::string(kDefaultLocale), bundle);
  }();
  return localizer;
}

std::string PreferredLocale(std::string_view acceptLanguage, boost::system::error_code& ec) {
  ec.clear();
  std::string_view preferred;
  int best = 0;
  while (!acceptLanguage.empty()) {
    std::string_view range = NextItem(acceptLanguage, ',');
    if (range.empty()) continue;
    const std::string_view name = NextItem(range, ';');
    const int quality = Quality(Trim(range));
    if (quality < 0 || (name != "*" && !IsLocaleName(name))) {
      ec = LocalizationError::kIncorrectHeader;
      return std::string(kDefaultLocale);
    }
    if (quality > best) {
      best = quality;
      preferred = name;
    }
  }
  if (preferred.empty() || preferred == "*") return std::string(kDefaultLocale);
  std::string locale(preferred);
  std::ranges::replace(locale, '-', '_');
  return locale;
}

bool IsLocaleName(std::string_view text) {
  constexpr std::size_t kLongest = 64;
  static constexpr std::string_view kOthers = "_-.@";
  return !text.empty() && text.size() <= kLongest && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           kOthers.find(c) != std::string_view::npos;
  });
}

}  // namespace Orbi::L10n
