#pragma once

#include <string_view>
#include <type_traits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

namespace Orbi::Transport::PicoHttp::PicoHttpDetail {

/// Tells a client that waits for it to send its body, once, when somebody first reads (RFC 9110,
/// section 10.1.1).
///
/// @tparam NextLayer  the stream below, or a reference to it
template <class NextLayer>
class AsyncExpectContinueStream {
 public:
  using next_layer_type = std::remove_reference_t<NextLayer>;
  using executor_type = typename next_layer_type::executor_type;

  explicit AsyncExpectContinueStream(NextLayer next) : next_(std::forward<NextLayer>(next)) {}

  executor_type get_executor() { return next_.get_executor(); }

  void PutBack(std::string_view bytes) { next_.PutBack(bytes); }

  template <class Handler>
  void async_read_some(boost::asio::mutable_buffer buffer, Handler&& handler) {
    if (std::exchange(told_, true))
      return next_.async_read_some(buffer, std::forward<Handler>(handler));
    static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    boost::asio::async_write(next_, boost::asio::buffer(kContinue),
                             [this, buffer, handler = std::forward<Handler>(handler)](
                                 const boost::system::error_code& ec, std::size_t) mutable {
                               if (ec) return handler(ec, 0);
                               next_.async_read_some(buffer, std::move(handler));
                             });
  }

 private:
  NextLayer next_;
  bool told_ = false;
};

}  // namespace Orbi::Transport::PicoHttp::PicoHttpDetail
