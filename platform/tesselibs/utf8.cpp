#include "tesselibs/utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Utf8 {
namespace {

/// The characters whose first byte lies in a range: their length, and the second byte's range.
struct Row {
  unsigned char first, last;
  unsigned char length;
  unsigned char second_first, second_last;
};

constexpr Row kRows[] = {
    {0x00, 0x7F, 1, 0x00, 0xFF}, {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

constexpr bool Within(char c, unsigned char first, unsigned char last) {
  const auto byte = static_cast<unsigned char>(c);
  return first <= byte && byte <= last;
}

}  // namespace

std::size_t Length(std::string_view text) {
  if (text.empty()) return 0;
  const auto* const row =
      std::ranges::find_if(kRows, [&](const Row& r) { return Within(text[0], r.first, r.last); });
  if (row == std::end(kRows) || text.size() < row->length) return 0;
  if (row->length > 1 && !Within(text[1], row->second_first, row->second_last)) return 0;
  const std::string_view rest =
      text.substr(0, row->length).substr(std::min<std::size_t>(2, row->length));
  return std::ranges::all_of(rest, [](char c) { return Within(c, 0x80, 0xBF); }) ? row->length : 0;
}

std::size_t FindInvalid(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    // Most texts are ASCII: eight bytes at a time while no top bit is set.
    std::uint64_t word = 0;
    if (text.size() - at >= sizeof word) {
      std::memcpy(&word, text.data() + at, sizeof word);
      if ((word & 0x8080808080808080U) == 0) {
        at += sizeof word;
        continue;
      }
    }
    const std::size_t length = Length(text.substr(at));
    if (length == 0) return at;
    at += length;
  }
  return std::string_view::npos;
}

}  // namespace Utf8
