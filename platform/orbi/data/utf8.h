#pragma once

#include <cstddef>
#include <string_view>

namespace Orbi::Data {

/// @return how many bytes the character takes that `text` begins with, 0 when it begins with none
///         (RFC 3629, section 4: no surrogates, no over-long forms, nothing above U+10FFFF)
[[nodiscard]] std::size_t Utf8Length(std::string_view text);

/// @return where `text` stops being UTF-8, npos when all of it is
[[nodiscard]] std::size_t FindNotUtf8(std::string_view text);

[[nodiscard]] inline bool IsUtf8(std::string_view text) {
  return FindNotUtf8(text) == std::string_view::npos;
}

}  // namespace Orbi::Data
