#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/system_error.hpp>

#include "tesselibs/wipe.h"
#include "transport/errors.h"

namespace Orbi::Asio {

/// How many bytes an AsyncPutbackStream takes back. Who reads no more than this at once can always
/// give back what it read too much.
inline constexpr std::size_t kPutbackCapacity = 16 * 1024;

/// Lets a reader give back bytes that it read beyond its own end, so that the next reader sees them
/// first.
///
/// @tparam NextLayer  the stream below, or a reference to it
template <class NextLayer>
class AsyncPutbackStream {
 public:
  using next_layer_type = std::remove_reference_t<NextLayer>;
  using executor_type = typename next_layer_type::executor_type;

  explicit AsyncPutbackStream(NextLayer next) : next_(std::forward<NextLayer>(next)) {}
  AsyncPutbackStream(const AsyncPutbackStream&) = delete;
  AsyncPutbackStream& operator=(const AsyncPutbackStream&) = delete;
  ~AsyncPutbackStream() { Wipe(held_); }

  executor_type get_executor() { return next_.get_executor(); }

  /// Puts bytes before those that are still to be read.
  /// @throws boost::system::system_error "putback buffer full" when that would be more than
  ///     kPutbackCapacity
  void PutBack(std::string_view bytes) {
    if (Held() + bytes.size() > kPutbackCapacity)
      throw boost::system::system_error(StreamError::kBufferMaxLength, "putback buffer full");
    const auto reused = std::min(taken_, bytes.size());
    held_.replace(taken_ - reused, reused, bytes);
    taken_ -= reused;
  }

  template <class Handler>
  void async_read_some(boost::asio::mutable_buffer buffer, Handler&& handler) {
    if (Held() == 0) return next_.async_read_some(buffer, std::forward<Handler>(handler));
    const auto copied = boost::asio::buffer_copy(buffer, boost::asio::buffer(held_) + taken_);
    Wipe(std::span(held_).subspan(taken_, copied));  // it may hold a password
    taken_ += copied;
    if (Held() == 0) {
      // An idle connection holds no memory for this, and an assignment would keep the capacity.
      std::string().swap(held_);
      taken_ = 0;
    }
    // Not from within: a reader that is handed byte after byte would otherwise use up the stack.
    boost::asio::post(get_executor(), [handler = std::forward<Handler>(handler), copied]() mutable {
      handler(boost::system::error_code(), copied);
    });
  }

  template <class Buffers, class Handler>
  void async_write_some(const Buffers& buffers, Handler&& handler) {
    next_.async_write_some(buffers, std::forward<Handler>(handler));
  }

 private:
  [[nodiscard]] std::size_t Held() const { return held_.size() - taken_; }

  NextLayer next_;
  std::string held_;
  std::size_t taken_ = 0;  ///< length of the part of held_ that has been read again
};

}  // namespace Orbi::Asio
