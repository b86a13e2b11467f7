#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/system/error_code.hpp>

#include "orbi/data/message.h"
#include "orbi/data/value.h"
#include "orbi/l10n/bundle.h"

namespace Orbi::L10n {

/// The locale of a client that names none, and the one whose texts serve for an unsupported one.
inline constexpr std::string_view kDefaultLocale = "en_US";

/// Words messages in a client's language. Safe to use from any thread.
class Localizer {
 public:
  /// @param locale  serves for locales that the bundle does not have
  Localizer(std::string locale, std::shared_ptr<const LocalizationBundle> bundle);

  /// @param locale  for example "de_DE"
  /// @param ec  kLocaleNotSupported comes with the text in the localizer's own locale; with any
  ///            other error there is none
  [[nodiscard]] std::optional<std::string> Localize(const Data::LocalizableMessage& message,
                                                    std::string_view locale,
                                                    boost::system::error_code& ec) const;

  /// Sets the `localized` text of each of the error's messages that has none and whose identifier
  /// the bundle knows.
  /// @param ec  kLocaleNotSupported: the texts are in the localizer's own locale;
  ///            kErrorValueNotLocalized: a text does not fit its arguments and was left out
  void Localize(Data::ErrorValue& error, std::string_view locale,
                boost::system::error_code& ec) const;

 private:
  const std::string locale_;
  const std::shared_ptr<const LocalizationBundle> bundle_;
};

struct LocalizerHelpers {
  /// The localizer over the framework's own catalogue, for the locale "en_US".
  [[nodiscard]] static std::shared_ptr<const Localizer> GetDefaultLocalizer();
};

/// The locale that an accept-language header prefers (RFC 9110, section 12.5.4): "de_DE" for
/// "fr;q=0.5, de-DE". The one named first wins among equals, and "*" is the default locale.
/// @param ec  kIncorrectHeader: the default locale is returned
[[nodiscard]] std::string PreferredLocale(std::string_view acceptLanguage,
                                          boost::system::error_code& ec);

/// Whether the text can be a locale's name: letters, digits and "_-.@", at most 64 of them.
[[nodiscard]] bool IsLocaleName(std::string_view text);

}  // namespace Orbi::L10n
