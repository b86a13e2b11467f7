#include "orbi/l10n/errors.h"

#include <span>
#include <string>

namespace Orbi::L10n {
namespace {

/// A category whose codes count from 1 through a table of messages.
class Category : public boost::system::error_category {
 public:
  Category(const char* name, const char* other, std::span<const char* const> messages)
      : name_(name), other_(other), messages_(messages) {}

  const char* name() const noexcept override { return name_; }
  std::string message(int code) const override {
    const auto index = static_cast<std::size_t>(code) - 1;
    return code > 0 && index < messages_.size() ? messages_[index] : other_;
  }

 private:
  const char* name_;
  const char* other_;
  std::span<const char* const> messages_;
};

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
  static const Category category("localization", "localization error", kLocalizationMessages);
  return category;
}

const boost::system::error_category& FormatCategory() {
  static const Category category("format", "format error", kFormatMessages);
  return category;
}

const boost::system::error_category& ToolsCategory() {
  static const Category category("tools", "tools error", kToolsMessages);
  return category;
}

}  // namespace Orbi::L10n
