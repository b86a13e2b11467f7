#include "orbi/http/phr_parse.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "tesselibs/ascii.h"

namespace Orbi::Transport::PicoHttp {
namespace {

enum CharClass : std::uint8_t { kToken = 1, kVisible = 2, kFieldValue = 4 };

/// The characters of tokens (RFC 9110, section 5.6.2), request targets and field values
/// (section 5.5). Octets above 0x7f are opaque data and allowed where they cannot be taken for
/// syntax.
constexpr std::array<std::uint8_t, 256> MakeCharClasses() {
  std::array<std::uint8_t, 256> classes{};
  for (int c = 0x21; c < 0x100; ++c)
    if (c != 0x7f) classes[c] = kVisible | kFieldValue;
  classes[' '] = classes['\t'] = kFieldValue;
  for (int c = '0'; c <= '9'; ++c) classes[c] |= kToken;
  for (int c = 'a'; c <= 'z'; ++c) classes[c] |= kToken;
  for (int c = 'A'; c <= 'Z'; ++c) classes[c] |= kToken;
  for (const char c : std::string_view("!#$%&'*+-.^_`|~")) classes[c] |= kToken;
  return classes;
}

constexpr auto kCharClasses = MakeCharClasses();

enum class Outcome { kTaken, kIncomplete, kMalformed };

std::size_t Span(std::string_view input, CharClass allowed) {
  std::size_t n = 0;
  while (n < input.size() && (kCharClasses[static_cast<unsigned char>(input[n])] & allowed) != 0)
    ++n;
  return n;
}

/// Takes one or more characters of `allowed`, and the `stop` that must follow them.
Outcome TakeWord(std::string_view& input, CharClass allowed, char stop, std::string_view& word) {
  const std::size_t n = Span(input, allowed);
  if (n == input.size()) return Outcome::kIncomplete;
  if (n == 0 || input[n] != stop) return Outcome::kMalformed;
  word = input.substr(0, n);
  input.remove_prefix(n + 1);
  return Outcome::kTaken;
}

Outcome TakeLineEnd(std::string_view& input) {
  const std::size_t length = input.starts_with('\r') ? 2 : 1;
  if (input.size() < length) return Outcome::kIncomplete;
  if (input[length - 1] != '\n') return Outcome::kMalformed;
  input.remove_prefix(length);
  return Outcome::kTaken;
}

Outcome TakeVersion(std::string_view& input, int& minorVersion) {
  constexpr std::string_view kMajor = "HTTP/1.";
  const auto compared = std::min(input.size(), kMajor.size());
  if (input.substr(0, compared) != kMajor.substr(0, compared)) return Outcome::kMalformed;
  if (input.size() <= kMajor.size()) return Outcome::kIncomplete;
  const char digit = input[kMajor.size()];
  if (digit < '0' || digit > '9') return Outcome::kMalformed;
  minorVersion = digit - '0';
  input.remove_prefix(kMajor.size() + 1);
  return TakeLineEnd(input);
}

Outcome TakeRequestLine(std::string_view& input, PhrRequest& request) {
  if (input.starts_with('\r') || input.starts_with('\n'))
    if (const auto outcome = TakeLineEnd(input); outcome != Outcome::kTaken) return outcome;
  if (const auto outcome = TakeWord(input, kToken, ' ', request.method); outcome != Outcome::kTaken)
    return outcome;
  if (const auto outcome = TakeWord(input, kVisible, ' ', request.path); outcome != Outcome::kTaken)
    return outcome;
  return TakeVersion(input, request.minorVersion);
}

Outcome TakeHeader(std::string_view& input, PhrRequest& request) {
  if (request.headerCount == kMaxHeaders) return Outcome::kMalformed;
  HeaderField& field = request.headers[request.headerCount];
  if (const auto outcome = TakeWord(input, kToken, ':', field.name); outcome != Outcome::kTaken)
    return outcome;
  const std::size_t n = Span(input, kFieldValue);
  field.value = Ascii::Trimmed(input.substr(0, n));
  input.remove_prefix(n);
  const auto outcome = TakeLineEnd(input);
  if (outcome == Outcome::kTaken) ++request.headerCount;
  return outcome;
}

Outcome TakeHead(std::string_view& input, PhrRequest& request) {
  request.headerCount = 0;
  auto outcome = TakeRequestLine(input, request);
  while (outcome == Outcome::kTaken) {
    if (input.empty()) return Outcome::kIncomplete;
    if (input.front() == '\r' || input.front() == '\n') return TakeLineEnd(input);
    outcome = TakeHeader(input, request);
  }
  return outcome;
}

/// Whether the end of a head may be among the bytes that an earlier call did not see.
bool MayHaveBecomeComplete(std::string_view buffer, std::size_t parsedBefore) {
  constexpr std::size_t kOverlap =
      3;  // all but the last byte of an empty line's "\n\r\n" may have been seen
  const auto unseen = buffer.substr(parsedBefore - std::min(parsedBefore, kOverlap));
  return unseen.find("\n\r\n") != std::string_view::npos ||
         unseen.find("\n\n") != std::string_view::npos;
}

}  // namespace

int PhrParse(std::string_view buffer, PhrRequest& request, std::size_t parsedBefore) {
  if (parsedBefore != 0 && !MayHaveBecomeComplete(buffer, parsedBefore)) return kPhrIncomplete;
  auto rest = buffer;
  switch (TakeHead(rest, request)) {
    case Outcome::kIncomplete:
      return kPhrIncomplete;
    case Outcome::kMalformed:
      return kPhrMalformed;
    case Outcome::kTaken:
      break;
  }
  return static_cast<int>(buffer.size() - rest.size());
}

bool IsToken(std::string_view text) { return !text.empty() && Span(text, kToken) == text.size(); }

void TolowerAndSortHeaders(std::span<char> buffer, PhrRequest& request) {
  // An insertion sort: stable, without the memory that the library's stable sort asks for, and
  // quick on tables this short.
  const auto count = std::exchange(request.headerCount, 0);
  for (std::size_t i = 0; i < count; ++i) {
    const HeaderField field = request.headers[i];
    const auto name = buffer.subspan(field.name.data() - buffer.data(), field.name.size());
    std::ranges::transform(name, name.begin(), Ascii::ToLower);
    InsertHeader(request, field);
  }
}

void InsertHeader(PhrRequest& request, const HeaderField& field) {
  const auto end = request.headers.begin() + request.headerCount;
  const auto place = std::upper_bound(request.headers.begin(), end, field,
                                      [](const auto& a, const auto& b) { return a.name < b.name; });
  std::move_backward(place, end, end + 1);
  *place = field;
  ++request.headerCount;
}

}  // namespace Orbi::Transport::PicoHttp
