#include "transport/http/chunk_decoder.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace Orbi::Transport::PicoHttp::PicoHttpDetail {
namespace {

/// Extensions and trailers together may take as much as a request head; nobody has a use for more.
constexpr std::size_t kMaxPassedOver = 4096;

bool IsText(char c) { return c == '\t' || (static_cast<unsigned char>(c) >= ' ' && c != 0x7f); }

}  // namespace

ChunkDecoder::Result ChunkDecoder::Decode(std::span<char> bytes) {
  Result result{0, 0};
  while (result.consumed < bytes.size() && !Done() && !Failed()) {
    if (state_ != State::kData) {
      state_ = Next(bytes[result.consumed]);
      if (!Failed()) ++result.consumed;
      continue;
    }
    const std::size_t run = std::min<std::uint64_t>(remaining_, bytes.size() - result.consumed);
    std::memmove(bytes.data() + result.produced, bytes.data() + result.consumed, run);
    result.consumed += run;
    result.produced += run;
    remaining_ -= run;
    if (remaining_ == 0) state_ = State::kDataCr;
  }
  return result;
}

ChunkDecoder::State ChunkDecoder::Next(char c) {
  const auto expect = [c](char wanted, State next) { return c == wanted ? next : State::kFailed; };
  switch (state_) {
    case State::kSizeStart:
      return SizeDigit(c);
    case State::kSize:
      if (c == '\r') return State::kSizeLf;
      if (c == ';' || c == ' ' || c == '\t') return State::kExtension;
      return SizeDigit(c);
    case State::kExtension:
      return Passed(c, State::kExtension, State::kSizeLf);
    case State::kSizeLf:
      return expect('\n', remaining_ == 0 ? State::kTrailerStart : State::kData);
    case State::kDataCr:
      return expect('\r', State::kDataLf);
    case State::kDataLf:
      return expect('\n', State::kSizeStart);
    case State::kTrailerStart:
      return Passed(c, State::kTrailer, State::kEndLf);
    case State::kTrailer:
      return Passed(c, State::kTrailer, State::kTrailerLf);
    case State::kTrailerLf:
      return expect('\n', State::kTrailerStart);
    case State::kEndLf:
      return expect('\n', State::kDone);
    default:
      return State::kFailed;
  }
}

ChunkDecoder::State ChunkDecoder::SizeDigit(char c) {
  std::uint64_t digit = 0;
  if (std::from_chars(&c, &c + 1, digit, 16).ec != std::errc()) return State::kFailed;
  if (remaining_ > std::numeric_limits<std::uint64_t>::max() >> 4) return State::kFailed;
  remaining_ = remaining_ << 4 | digit;
  return State::kSize;
}

ChunkDecoder::State ChunkDecoder::Passed(char c, State same, State lineEnd) {
  if (c == '\r') return lineEnd;
  if (!IsText(c) || ++passedOver_ > kMaxPassedOver) return State::kFailed;
  return same;
}

}  // namespace Orbi::Transport::PicoHttp::PicoHttpDetail
