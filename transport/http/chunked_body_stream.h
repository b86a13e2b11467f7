#pragma once

#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>

#include "transport/asio/putback_stream.h"
#include "transport/errors.h"
#include "transport/http/body_stream.h"
#include "transport/http/chunk_decoder.h"

namespace Orbi::Transport::PicoHttp::PicoHttpDetail {

/// A body framed by the chunked transfer coding: yields the bytes of its chunks, then
/// HttpError::kEndOfBody. Bytes that were read beyond the body's end are put back into the stream
/// below.
///
/// @tparam NextLayer  the stream below, or a reference to it
template <class NextLayer>
class AsyncHttpChunkedBodyStream {
 public:
  using next_layer_type = std::remove_reference_t<NextLayer>;

  explicit AsyncHttpChunkedBodyStream(NextLayer next) : next_(std::forward<NextLayer>(next)) {}

  /// Whether nothing is left to be read.
  [[nodiscard]] bool AtEnd() const { return decoder_.Done(); }

  /// The room that the whole body may need, if it is no longer than `limit` bytes: its last bytes
  /// are read together with the end of its framing.
  [[nodiscard]] static std::size_t Longest(std::uint64_t limit) {
    constexpr std::size_t kForFraming = 1024;
    return limit + kForFraming;
  }

  template <class Handler>
  void async_read_some(boost::asio::mutable_buffer buffer, Handler&& handler) {
    if (AtEnd()) {
      return boost::asio::post(next_.get_executor(),
                               [handler = std::forward<Handler>(handler)]() mutable {
                                 handler(Http::HttpError::kEndOfBody, 0);
                               });
    }
    buffer = boost::asio::buffer(buffer, Orbi::Asio::kPutbackCapacity);
    next_.async_read_some(buffer,
                          [this, buffer, handler = std::forward<Handler>(handler)](
                              const boost::system::error_code& ec, std::size_t count) mutable {
                            if (ec) return handler(BodyReadError(ec), 0);
                            OnRead(boost::asio::buffer(buffer, count), buffer, std::move(handler));
                          });
  }

 private:
  template <class Handler>
  void OnRead(boost::asio::mutable_buffer bytes, boost::asio::mutable_buffer buffer,
              Handler&& handler) {
    const std::span<char> coded(static_cast<char*>(bytes.data()), bytes.size());
    const auto [consumed, produced] = decoder_.Decode(coded);
    if (decoder_.Failed()) return handler(PicoHttpError::kChunkParse, 0);
    if (decoder_.Done()) next_.PutBack({coded.data() + consumed, coded.size() - consumed});
    if (produced != 0) return handler(boost::system::error_code(), produced);
    // Framing alone is no news to the reader, unless it was the end.
    async_read_some(buffer, std::forward<Handler>(handler));
  }

  NextLayer next_;
  ChunkDecoder decoder_;
};

}  // namespace Orbi::Transport::PicoHttp::PicoHttpDetail
