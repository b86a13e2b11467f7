#pragma once

#include <boost/system/error_code.hpp>

/// What can go wrong with texts. The messages are part of the interface: operators read them in the
/// log.
namespace Orbi::L10n {

enum class LocalizationError {
  kLocaleNotSupported = 1,
  kFormatLocaleNotSupported = 2,
  kIncorrectHeader = 3,
  kNoFormatString = 4,
  kUnknownMessageId = 5,
  kBundleNotLoaded = 6,
  kErrorValueNotLocalized = 7,
};

/// Of filling a message's arguments into its text.
enum class FormatError {
  kArgumentNotFound = 1,
  kEmptySpecifier = 2,
  kTooManySpecifiers = 3,
};

/// Of finding the specifiers in a text, whatever they stand for.
enum class ToolsError {
  kArgumentNotFound = 1,
  kEmptySpecifier = 2,
};

const boost::system::error_category& LocalizationCategory();
const boost::system::error_category& FormatCategory();
const boost::system::error_category& ToolsCategory();

inline boost::system::error_code make_error_code(LocalizationError error) {
  return {static_cast<int>(error), LocalizationCategory()};
}
inline boost::system::error_code make_error_code(FormatError error) {
  return {static_cast<int>(error), FormatCategory()};
}
inline boost::system::error_code make_error_code(ToolsError error) {
  return {static_cast<int>(error), ToolsCategory()};
}

}  // namespace Orbi::L10n

template <>
struct boost::system::is_error_code_enum<Orbi::L10n::LocalizationError> : std::true_type {};
template <>
struct boost::system::is_error_code_enum<Orbi::L10n::FormatError> : std::true_type {};
template <>
struct boost::system::is_error_code_enum<Orbi::L10n::ToolsError> : std::true_type {};
