#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orbi/data/value.h"

namespace Orbi::Data {

/// The name of messages as structures.
inline constexpr std::string_view kMessageStructure = "com.tessel.orbi.std.localizable_message";

/// A text for people that a client can translate, the structure kMessageStructure on the wire.
struct LocalizableMessage {
  std::string id;
  std::string default_message;           ///< English, placeholders filled in
  std::vector<std::string> args;         ///< "{1}" is the first
  std::optional<std::string> localized;  ///< in the client's language, once it was localised

  [[nodiscard]] Value ToValue() const;
  /// @return nothing when `value` is not such a structure
  [[nodiscard]] static std::optional<LocalizableMessage> FromValue(const Value& value);

  bool operator==(const LocalizableMessage&) const = default;
};

/// Builds a message from a template whose placeholders "{1}" to "{9}" stand for the arguments.
/// Filled in one pass: an argument that contains "{2}" is text. A placeholder without an argument
/// stays as it is.
[[nodiscard]] LocalizableMessage MakeMessage(std::string id, const std::string& textTemplate,
                                             std::vector<std::string> args = {});

/// The substitution of MakeMessage on its own.
[[nodiscard]] std::string FillPlaceholders(const std::string& textTemplate,
                                           const std::vector<std::string>& args);

}  // namespace Orbi::Data
