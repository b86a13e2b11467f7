#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include "transport/errors.h"

namespace Orbi::Transport::PicoHttp::PicoHttpDetail {

/// What a reader of a body sees of the stream's own end: the sender broke off.
inline boost::system::error_code BodyReadError(const boost::system::error_code& ec) {
  return ec == boost::asio::error::eof ? PicoHttpError::kIncompleteBody : ec;
}

/// A body framed by Content-Length: yields exactly that many bytes, then HttpError::kEndOfBody.
///
/// @tparam NextLayer  the stream below, or a reference to it
template <class NextLayer>
class AsyncHttpBodyStream {
 public:
  using next_layer_type = std::remove_reference_t<NextLayer>;

  AsyncHttpBodyStream(NextLayer next, std::uint64_t contentLength)
      : next_(std::forward<NextLayer>(next)), length_(contentLength), remaining_(contentLength) {}

  /// Whether nothing is left to be read.
  [[nodiscard]] bool AtEnd() const { return remaining_ == 0; }

  /// The room that the whole body may need, if it is no longer than `limit` bytes.
  [[nodiscard]] std::size_t Longest(std::uint64_t limit) const { return std::min(length_, limit); }

  template <class Handler>
  void async_read_some(boost::asio::mutable_buffer buffer, Handler&& handler) {
    if (AtEnd()) {
      return boost::asio::post(next_.get_executor(),
                               [handler = std::forward<Handler>(handler)]() mutable {
                                 handler(Http::HttpError::kEndOfBody, 0);
                               });
    }
    const std::size_t wanted = std::min<std::uint64_t>(remaining_, buffer.size());
    next_.async_read_some(boost::asio::buffer(buffer, wanted),
                          [this, handler = std::forward<Handler>(handler)](
                              const boost::system::error_code& ec, std::size_t count) mutable {
                            remaining_ -= count;
                            handler(BodyReadError(ec), count);
                          });
  }

 private:
  NextLayer next_;
  const std::uint64_t length_;
  std::uint64_t remaining_;
};

}  // namespace Orbi::Transport::PicoHttp::PicoHttpDetail
