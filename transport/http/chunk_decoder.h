#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Orbi::Transport::PicoHttp::PicoHttpDetail {

/// Removes the chunked transfer coding (RFC 9112, section 7.1) from bytes as they arrive. Chunk
/// extensions and trailer fields are passed over. Stricter than old servers: lines end in CRLF and
/// nothing else, nothing but an extension follows a size, and a trailer is a field, because two
/// readers of one connection that disagree on a line disagree on where a request ends.
class ChunkDecoder {
 public:
  struct Result {
    std::size_t
        consumed;  ///< less than was given only at the end of the body, or of what is well-formed
    std::size_t produced;
  };

  /// Decodes in place: the body's bytes among `bytes` are moved to the front.
  Result Decode(std::span<char> bytes);

  /// The last chunk and the trailer section have been read; whatever follows is not part of the
  /// body.
  [[nodiscard]] bool Done() const { return state_ == State::kDone; }
  /// The bytes are no chunked body. Final.
  [[nodiscard]] bool Failed() const { return state_ == State::kFailed; }

 private:
  enum class State {
    kSizeStart,
    kSize,
    kSizeBlank,
    kExtension,
    kSizeLf,
    kData,
    kDataCr,
    kDataLf,
    kTrailerStart,
    kTrailerName,
    kTrailer,
    kTrailerLf,
    kEndLf,
    kDone,
    kFailed,
  };

  State Next(char c);
  State SizeDigit(char c);
  State TrailerName(char c);
  State Passed(char c, State same, State lineEnd);

  State state_ = State::kSizeStart;
  std::uint64_t remaining_ = 0;  ///< of the current chunk
  std::size_t digits_ = 0;       ///< of the current chunk's size
  std::size_t passedOver_ = 0;   ///< octets of extensions and trailers so far
};

}  // namespace Orbi::Transport::PicoHttp::PicoHttpDetail
