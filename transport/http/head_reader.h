#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include <boost/system/error_code.hpp>

#include "orbi/http/phr_parse.h"
#include "tesselibs/wipe.h"
#include "transport/http/request_head.h"

namespace Orbi::Transport::PicoHttp {

/// How the end of a request's body is found (RFC 9112, section 6.3).
struct BodyFraming {
  bool chunked = false;
  bool hasContentLength = false;
  std::uint64_t contentLength = 0;  ///< in bytes; 0 when chunked
  /// A body is announced, but the method is one whose body is not read: what follows is taken as
  /// the next request here, and as this one's body by a proxy.
  bool leftUnread = false;
};

/// What the expect header asks for.
enum class Expectation { kNone, kContinue, kUnknown };

/// Collects the bytes of a request head in one fixed buffer and takes from it what the transport
/// needs. Used again for every request of its connection. Does no input or output itself: whoever
/// owns it reads into Free().
class HeadReader {
 public:
  /// The whole head must fit in this many bytes.
  static constexpr std::size_t kBufferSize = 4096;

  HeadReader() = default;
  ~HeadReader() { Wipe(buffer_); }
  HeadReader(const HeadReader&) = delete;  // the head's views point into the object
  HeadReader& operator=(const HeadReader&) = delete;

  /// Where the next bytes are to be read to; not empty as long as the head is neither complete nor
  /// refused.
  [[nodiscard]] std::span<char> Free() { return std::span(buffer_).subspan(filled_); }

  /// Takes note of `count` bytes that were read into Free().
  /// @param ec  why the head is refused: one of PicoHttpError's kHeadersParse, kHeadersTooLong,
  ///     kInvalidRequest, or HttpError::kMessageTooLong
  /// @return whether the head is complete; if not and without an error, more bytes are needed
  [[nodiscard]] bool Take(std::size_t count, boost::system::error_code& ec);

  /// Whether nothing of a request has arrived yet.
  [[nodiscard]] bool Empty() const { return filled_ == 0; }

  // What a complete head says.

  [[nodiscard]] const RequestHead& Head() const { return head_; }
  [[nodiscard]] const BodyFraming& Framing() const { return framing_; }
  [[nodiscard]] Expectation Expects() const { return expectation_; }
  /// The bytes that were read beyond the head.
  [[nodiscard]] std::string_view Rest() const {
    return std::string_view(buffer_.data(), filled_).substr(headLength_);
  }
  /// Overwrites them, once they stand elsewhere: they may be a body that holds a password.
  void WipeRest();

  /// Has the connection end with the answer.
  void DoNotKeep() { head_.keepAlive = false; }

  /// Forgets the request, to read the next one; all views into it are dead.
  void Reset();

 private:
  struct Visitor;

  boost::system::error_code VisitHeaders();
  boost::system::error_code VisitContentLength(std::string_view value);
  boost::system::error_code VisitTransferEncoding(std::string_view value);
  boost::system::error_code VisitHost(std::string_view value);
  boost::system::error_code SettleFraming();
  void ForceEmptyBody();

  std::array<char, kBufferSize> buffer_;
  std::size_t filled_ = 0;
  std::size_t headLength_ = 0;
  PhrRequest request_;
  RequestHead head_;
  BodyFraming framing_;
  Expectation expectation_ = Expectation::kNone;
  bool coded_ = false;  ///< there is a transfer-encoding
  bool named_ = false;  ///< there is a host
  bool asksToKeep_ = false;
  bool asksToClose_ = false;
};

}  // namespace Orbi::Transport::PicoHttp
