#pragma once

#include <algorithm>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>

namespace LifeCycle {

/// A message identifier and its default English text, which may hold placeholders "{1}" to "{4}".
struct MessageTableEntry {
  std::string_view id;
  std::string_view text;
};

/// The text of an identifier that no table knows.
inline constexpr std::string_view kUnknownMessage = "Unknown message.";

/// @return the text of the first entry whose identifier is exactly `id`, letter case included
[[nodiscard]] inline std::optional<std::string_view> FindText(
    std::span<const MessageTableEntry> table, std::string_view id) {
  const auto entry = std::ranges::find(table, id, &MessageTableEntry::id);
  if (entry == table.end()) return std::nullopt;
  return entry->text;
}

}  // namespace LifeCycle
