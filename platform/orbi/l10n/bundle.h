#pragma once

#include <cstddef>
#include <istream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/error_code.hpp>

namespace Orbi::L10n {

/// Message texts by locale and message identifier.
///
/// Safe to use from any thread. A reader sees a locale as it was before a change or as it is after
/// it, never in between.
class LocalizationBundle {
 public:
  /// Message identifier to text.
  using Texts = std::map<std::string, std::string, std::less<>>;

  /// A larger catalogue is refused.
  static constexpr std::size_t kMaxCatalogueBytes = std::size_t{4} << 20;

  LocalizationBundle() : locales_(std::make_shared<const Locales>()) {}

  /// Reads a catalogue: lines of the form `id = "text"`, in UTF-8. In a quoted text a backslash
  /// stands before a quote, a backslash, n or t; a text without quotes is taken as it is. Empty
  /// lines and those that begin with ';' or '#' are skipped; sections are no part of the form.
  /// @return the texts; none, and `ec` set to kBundleNotLoaded, when anything in it is malformed
  [[nodiscard]] static Texts LoadIniFile(std::istream& stream, boost::system::error_code& ec);

  /// Adds texts to those of a locale. A text with an identifier that is there already replaces the
  /// old one.
  /// @param locale  "de" or "de_DE"
  void AddLocale(const std::string& locale, Texts texts);

  /// Takes over all of another bundle's texts in place of its own.
  void Replace(const LocalizationBundle& other);

  /// The texts that serve a locale as they are now, the closest first: for "zh_Hant_TW" those of
  /// "zh_Hant_TW", "zh_Hant" and "zh", as far as they are there (RFC 4647, section 3.4).
  [[nodiscard]] std::vector<std::shared_ptr<const Texts>> TextsFor(std::string_view locale) const;

  /// Whether there are any.
  [[nodiscard]] bool Supports(std::string_view locale) const;

  /// The text of a message, in the closest of them that has it.
  [[nodiscard]] std::optional<std::string> Find(std::string_view locale, std::string_view id) const;

 private:
  using Locales = std::map<std::string, Texts, std::less<>>;

  [[nodiscard]] std::shared_ptr<const Locales> Snapshot() const;
  void Publish(std::shared_ptr<const Locales> locales);

  std::mutex writers_;        ///< held while a changed copy is made and published
  mutable std::mutex mutex_;  ///< guards locales_, the pointer; what it points to never changes
  std::shared_ptr<const Locales> locales_;
};

}  // namespace Orbi::L10n
