#include "orbi/l10n/errors.h"

#include "tesselibs/listed_category.h"

namespace Orbi::L10n {
namespace {

constexpr const char* kLocalizationMessages[] = {
    "Requested locale not supported",
    "Requested format locale not supported",
    "Incorrect value of accept-language or orbi-ctx-format-locale header",
    "Default message formatter - no formatString",
    "Unknown message ID",
    "Failed to load localization bundle",
    "Failed to localize ErrorValue",
};

constexpr const char* kFormatMessages[] = {
    "Named argument not found.",
    "Empty Named specifier found.",
    "More specifiers than expected.",
};

constexpr const char* kToolsMessages[] = {
    "Named argument not found.",
    "Empty Named specifier found.",
};

}  // namespace

const boost::system::error_category& LocalizationCategory() {
  static const ListedCategory category("localization", kLocalizationMessages, "localization error");
  return category;
}

const boost::system::error_category& FormatCategory() {
  static const ListedCategory category("format", kFormatMessages, "format error");
  return category;
}

const boost::system::error_category& ToolsCategory() {
  static const ListedCategory category("tools", kToolsMessages, "tools error");
  return category;
}

}  // namespace Orbi::L10n
