#pragma once

#include <algorithm>
#include <string_view>

/// Comparisons of protocol words, which ignore the case of ASCII letters and no locale's rules.
namespace Ascii {

constexpr char ToLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char left, char right) { return ToLower(left) == ToLower(right); });
}

constexpr bool ContainsIgnoringCase(std::string_view text, std::string_view word) {
  return std::search(text.begin(), text.end(), word.begin(), word.end(),
                     [](char a, char b) { return ToLower(a) == ToLower(b); }) != text.end();
}

}  // namespace Ascii
