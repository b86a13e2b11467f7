#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

/// Parsing of HTTP/1.x request heads in place: nothing is copied, the results are views into the
/// caller's buffer and live as long as its bytes do. No function here keeps state between calls;
/// all are safe to call from any thread.
namespace Orbi::Transport::PicoHttp {

/// More header fields than this make a head malformed.
inline constexpr std::size_t kMaxHeaders = 64;

struct HeaderField {
  std::string_view name;
  std::string_view value;  ///< without the white space around it
};

/// A parsed request head (RFC 9112, sections 3 and 5).
struct PhrRequest {
  std::string_view method;
  std::string_view path;  ///< the request target as it was sent
  int minorVersion = 0;   ///< the y of HTTP/1.y
  std::size_t headerCount = 0;
  /// One place more than a request may fill, so that its reader can add a pseudo-header.
  std::array<HeaderField, kMaxHeaders + 1> headers;

  [[nodiscard]] std::span<const HeaderField> Headers() const {
    return {headers.data(), headerCount};
  }
};

inline constexpr int kPhrMalformed = -1;
inline constexpr int kPhrIncomplete = -2;

/// Parses the head that `buffer` starts with.
///
/// One empty line before the request line is skipped, a line may end in a bare LF (RFC 9112,
/// section 2.2), and a folded header line is malformed (section 5.2).
/// @param buffer          all bytes read so far
/// @param request         filled when the head is complete, otherwise left in an unspecified state
/// @param parsedBefore    length of the part of `buffer` that an earlier call found incomplete, 0
/// at first; only saves
///                        time: a head that arrives in single bytes is not parsed again for each of
///                        them
/// @return the head's length including its empty line, kPhrMalformed, or kPhrIncomplete
[[nodiscard]] int PhrParse(std::string_view buffer, PhrRequest& request, std::size_t parsedBefore);

/// @return whether a text is a token (RFC 9110, section 5.6.2)
[[nodiscard]] bool IsToken(std::string_view text);

/// Lower-cases the header names, in `buffer` itself, and sorts the table by name; fields of one
/// name keep their order (RFC 9110, section 5.3).
/// @param buffer  the bytes that `request` was parsed from
void TolowerAndSortHeaders(std::span<char> buffer, PhrRequest& request);

/// Adds a field to a sorted table, behind those of the same name. The table must have a place left.
void InsertHeader(PhrRequest& request, const HeaderField& field);

}  // namespace Orbi::Transport::PicoHttp
