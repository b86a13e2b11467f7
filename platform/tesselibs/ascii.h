#pragma once

#include <algorithm>
#include <string_view>

/// Comparisons of protocol words, which ignore the case of ASCII letters and no locale's rules.
namespace Orbi::Transport::PicoHttp {

constexpr char ToLowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// @param word  in lower case
constexpr bool EqualsIgnoringCase(std::string_view text, std::string_view word) {
  return std::equal(text.begin(), text.end(), word.begin(), word.end(),
                    [](char a, char b) { return ToLowerAscii(a) == b; });
}

/// @param word  in lower case
constexpr bool ContainsIgnoringCase(std::string_view text, std::string_view word) {
  return std::search(text.begin(), text.end(), word.begin(), word.end(),
                     [](char a, char b) { return ToLowerAscii(a) == b; }) != text.end();
}

}  // namespace Orbi::Transport::PicoHttp
