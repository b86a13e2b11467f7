#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include <boost/asio/buffer.hpp>

#include "transport/http/request_head.h"
#include "transport/http/response.h"

namespace Orbi::Transport::PicoHttp {

/// Turns a response into the bytes to be sent (RFC 9112, sections 4 to 7), in portions that are
/// each sent with one gathered write: the head goes out with the body, or with its first chunk.
/// Nothing is copied from the body.
class ResponseWriter {
 public:
  static constexpr std::size_t kMaxChunkSize = 16 * 1024;

  using Buffers = std::array<boost::asio::const_buffer, 3>;

  /// @param head  of the request that is answered: a HEAD is answered without a body (RFC 9110,
  ///     section 9.3.2), and a streamed body goes to a client older than HTTP/1.1 without chunks,
  ///     ended by the end of the connection
  /// @param earlier  bytes that are sent before the answer, in the same write
  /// @throws std::invalid_argument when ":status" or ":reason" is missing
  ResponseWriter(Response response, const RequestHead& head, std::string earlier = {});

  ResponseWriter(const ResponseWriter&) = delete;
  ResponseWriter& operator=(const ResponseWriter&) = delete;

  /// The next portion, good until the next call; without any bytes when nothing is left to be sent.
  [[nodiscard]] Buffers Next();

  /// Why the body's source broke off, empty if it did not.
  [[nodiscard]] const std::string& Failure() const { return failure_; }
  [[nodiscard]] std::size_t HeadLength() const { return headLength_; }
  /// "200 OK"
  [[nodiscard]] std::string_view Status() const { return status_; }
  /// Whether another request may follow on the connection.
  [[nodiscard]] bool KeepsConnection() const { return keepsConnection_; }

 private:
  void WriteHead(const RequestHead& head);
  [[nodiscard]] const std::string& Required(std::string_view name) const;
  [[nodiscard]] std::string_view NextChunk(BodySource& source);

  Response response_;
  std::string status_;
  std::string
      framing_;        ///< what is sent before the next part of the body: the head, a chunk's size
  std::string piece_;  ///< from the body's source
  std::size_t pieceSent_ = 0;
  std::string failure_;
  std::size_t headLength_ = 0;
  bool keepsConnection_ = true;
  bool chunked_ = false;
  bool headTaken_ = false;
  bool done_ = false;
};

}  // namespace Orbi::Transport::PicoHttp
