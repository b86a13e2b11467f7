#pragma once

#include <cstddef>
#include <string_view>

namespace Utf8 {

/// @return how many bytes the character takes that `text` begins with, 0 when it begins with none
///         (RFC 3629, section 4: no surrogates, no over-long forms, nothing above U+10FFFF)
[[nodiscard]] std::size_t Length(std::string_view text);

/// @return where `text` stops being UTF-8, npos when all of it is
[[nodiscard]] std::size_t FindInvalid(std::string_view text);

[[nodiscard]] inline bool IsValid(std::string_view text) {
  return FindInvalid(text) == std::string_view::npos;
}

}  // namespace Utf8
