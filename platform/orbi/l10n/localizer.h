#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/error_code.hpp>

#include "orbi/data/value.h"
#include "orbi/l10n/bundle.h"
#include "orbi/l10n/wording.h"

namespace Orbi::L10n {

/// The locale of a client that names none, and the one whose texts serve for an unsupported one.
/// Default texts of messages are in it.
inline constexpr std::string_view kDefaultLocale = "en_US";

/// Words messages in a client's language. Safe to use from any thread.
class Localizer {
 public:
  using Bundles = std::vector<std::shared_ptr<const LocalizationBundle>>;

  /// @param locale   serves for locales that no bundle has
  /// @param bundles  the earlier ones first; what is loaded into them later is found as well
  Localizer(std::string locale, Bundles bundles);

  /// Whether there are texts of this locale, or of a broader one: "de" for "de_CH". The localizer's
  /// own language is always there, in default texts.
  [[nodiscard]] bool Supports(std::string_view locale) const;

  /// Sets the `localized` text of every message in the value whose identifier the bundles know.
  /// @param ec  kLocaleNotSupported: the texts are in the localizer's own locale;
  ///            kErrorValueNotLocalized: a text does not fit its message's arguments, and the
  ///            message counts as one without a text
  void Localize(Data::Value& value, std::string_view locale, Unworded unworded,
                boost::system::error_code& ec) const;
  void Localize(Data::ErrorValue& error, std::string_view locale, Unworded unworded,
                boost::system::error_code& ec) const;

  /// The supported locale that an accept-language header prefers (RFC 9110, section 12.5.4), by the
  /// lookup of RFC 4647, section 3.4: "de_CH" for "fr;q=0.5, de-CH" where there is "de". Among
  /// equals, the one named first wins; "*" is the localizer's own locale.
  /// @param ec  kIncorrectHeader, or kLocaleNotSupported when nothing that it names is there: the
  ///            localizer's own locale is returned
  [[nodiscard]] std::string PreferredLocale(std::string_view acceptLanguage,
                                            boost::system::error_code& ec) const;

 private:
  const std::string locale_;
  const Bundles bundles_;
};

struct LocalizerHelpers {
  /// The localizer over the framework's own catalogue, for the locale "en_US".
  [[nodiscard]] static std::shared_ptr<const Localizer> GetDefaultLocalizer();
  /// The bundle behind it.
  [[nodiscard]] static std::shared_ptr<const LocalizationBundle> GetFrameworkBundle();
};

/// Whether the text can be a locale's name: letters, digits and "_-.@", at most 64 of them.
[[nodiscard]] bool IsLocaleName(std::string_view text);

/// A locale's name as bundles have it: "zh_Hant_TW" for "ZH-hant-tw.UTF-8" (RFC 5646, section
/// 2.1.1).
[[nodiscard]] std::string NormalLocale(std::string_view name);

}  // namespace Orbi::L10n
