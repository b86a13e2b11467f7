#include "transport/http/chunk_decoder.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "orbi/http/phr_parse.h"

namespace Orbi::Transport::PicoHttp::PicoHttpDetail {
namespace {

/// Extensions and trailers together may take as much as a request head; nobody has a use for more.
constexpr std::size_t kMaxPassedOver = 4096;

/// What the largest size has, and a client that writes zeros before it needs no more either.
constexpr std::size_t kMaxSizeDigits = 16;

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
      if (c == ';') return State::kExtension;
      if (c == ' ' || c == '\t') return Passed(c, State::kSizeBlank, State::kFailed);
      return SizeDigit(c);
    case State::kSizeBlank:
      if (c == ';') return State::kExtension;
      if (c == '\r' || c == ' ' || c == '\t') return Passed(c, State::kSizeBlank, State::kSizeLf);
      return State::kFailed;
    case State::kExtension:
      return Passed(c, State::kExtension, State::kSizeLf);
    case State::kSizeLf:
      return expect('\n', remaining_ == 0 ? State::kTrailerStart : State::kData);
    case State::kDataCr:
      return expect('\r', State::kDataLf);
    case State::kDataLf:
      digits_ = 0;
      return expect('\n', State::kSizeStart);
    case State::kTrailerStart:
      return c == '\r' ? State::kEndLf : TrailerName(c);
    case State::kTrailerName:
      return c == ':' ? State::kTrailer : TrailerName(c);
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
  if (++digits_ > kMaxSizeDigits) return State::kFailed;
  remaining_ = remaining_ << 4 | digit;
  return State::kSize;
}

ChunkDecoder::State ChunkDecoder::TrailerName(char c) {
  return IsToken({&c, 1}) ? Passed(c, State::kTrailerName, State::kFailed) : State::kFailed;
}

ChunkDecoder::State ChunkDecoder::Passed(char c, State same, State lineEnd) {
  if (c == '\r') return lineEnd;
  if (!IsText(c) || ++passedOver_ > kMaxPassedOver) return State::kFailed;
  return same;
}

}  // namespace Orbi::Transport::PicoHttp::PicoHttpDetail
