#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

#include "tesselibs/wipe.h"
#include "transport/errors.h"
#include "transport/http/body_stream.h"
#include "transport/http/chunked_body_stream.h"
#include "transport/http/expect_continue_stream.h"
#include "transport/http/head_reader.h"
#include "transport/http/response_writer.h"

namespace Orbi::Transport::PicoHttp {

/// One exchange of a request's body for a response, over the stream layers that the request calls
/// for. Used again for every request of its connection; between requests it holds no body.
///
/// Handlers keep the transaction and its stream alive.
template <class Stream>
class HttpServerTransaction {
 public:
  explicit HttpServerTransaction(Stream& stream) : stream_(stream) {}

  /// Composes the body's layers.
  void Begin(const BodyFraming& framing, bool expectsContinue) {
    using namespace PicoHttpDetail;
    using Continue = AsyncExpectContinueStream<Stream&>;
    if (framing.chunked && expectsContinue)
      body_.template emplace<AsyncHttpChunkedBodyStream<Continue>>(Continue(stream_));
    else if (framing.chunked)
      body_.template emplace<AsyncHttpChunkedBodyStream<Stream&>>(stream_);
    else if (expectsContinue)
      body_.template emplace<AsyncHttpBodyStream<Continue>>(Continue(stream_),
                                                            framing.contentLength);
    else
      body_.template emplace<AsyncHttpBodyStream<Stream&>>(stream_, framing.contentLength);
  }

  /// Collects the body. What it takes in memory grows with what arrives: at most twice as much, and
  /// a little.
  /// @param limit  in bytes; a longer body ends in HttpError::kMessageTooLong as soon as that shows
  /// @param handler  void(error_code, std::string); called from within when there is nothing to be
  ///     read
  template <class Handler>
  void AsyncReadBody(std::uint64_t limit, Handler&& handler) {
    std::visit(
        [&]<class Body>(Body& body) {
          if constexpr (!std::is_same_v<Body, std::monostate>)
            Collect(body, limit, std::forward<Handler>(handler));
        },
        body_);
  }

  /// How much of the body there is.
  [[nodiscard]] std::size_t Collected() const { return collected_.size(); }

  /// Sends the response, behind bytes that are owed from before.
  /// @param handler  void(error_code, std::size_t): the number of bytes that have been sent, the
  ///     head's included. A body whose source broke off ends in PicoHttpError::kIncompleteBody.
  template <class Handler>
  void AsyncWriteResponse(Response response, const RequestHead& head, std::string earlier,
                          Handler&& handler) {
    writer_.emplace(std::move(response), head, std::move(earlier));
    WriteNext(0, std::forward<Handler>(handler));
  }

  [[nodiscard]] const ResponseWriter& Writer() const { return *writer_; }

  /// Forgets the request and its answer, and gives back their memory.
  void End() {
    body_ = std::monostate();
    Wipe(collected_);
    std::string().swap(collected_);  // an assignment would keep the capacity
    writer_.reset();
  }

 private:
  template <class Body, class Handler>
  void Collect(Body& body, std::uint64_t limit, Handler&& handler) {
    if (body.AtEnd()) return handler(boost::system::error_code(), std::move(collected_));
    const auto before = collected_.size();
    body.async_read_some(MakeRoom(body.Longest(limit)),
                         [this, &body, limit, before, handler = std::forward<Handler>(handler)](
                             boost::system::error_code ec, std::size_t count) mutable {
                           collected_.resize(before + count);
                           if (!ec && collected_.size() > limit)
                             ec = Http::HttpError::kMessageTooLong;
                           if (ec && ec != Http::HttpError::kEndOfBody)
                             return handler(ec, std::string());
                           if (ec)
                             return handler(boost::system::error_code(), std::move(collected_));
                           Collect(body, limit, std::move(handler));
                         });
  }

  /// Makes room behind what has been collected.
  /// @param longest  what is collected in the end, at most
  boost::asio::mutable_buffer MakeRoom(std::size_t longest) {
    constexpr std::size_t kFirst = 1024;
    constexpr std::size_t kMostAtOnce = 64 * 1024;
    const std::size_t size = collected_.size();
    if (size + kFirst / 2 > collected_.capacity() && collected_.capacity() < longest) {
      // Halves of the whole, so that the last is the whole and no more.
      std::size_t capacity = longest;
      while ((capacity + 1) / 2 >= std::max(2 * size, kFirst)) capacity = (capacity + 1) / 2;
      std::string larger;
      larger.reserve(capacity);
      larger.append(collected_);
      Wipe(collected_);  // it may hold a password
      collected_.swap(larger);
    }
    collected_.resize(size + std::min(kMostAtOnce, collected_.capacity() - size));
    return boost::asio::buffer(collected_) + size;
  }

  template <class Handler>
  void WriteNext(std::size_t sent, Handler&& handler) {
    const auto portion = writer_->Next();
    if (boost::asio::buffer_size(portion) == 0) {
      const auto ec =
          writer_->Failure().empty() ? boost::system::error_code() : PicoHttpError::kIncompleteBody;
      return handler(ec, sent);
    }
    boost::asio::async_write(stream_, portion,
                             [this, sent, handler = std::forward<Handler>(handler)](
                                 const boost::system::error_code& ec, std::size_t count) mutable {
                               if (ec) return handler(ec, sent + count);
                               WriteNext(sent + count, std::move(handler));
                             });
  }

  Stream& stream_;
  std::variant<
      std::monostate, PicoHttpDetail::AsyncHttpBodyStream<Stream&>,
      PicoHttpDetail::AsyncHttpBodyStream<PicoHttpDetail::AsyncExpectContinueStream<Stream&>>,
      PicoHttpDetail::AsyncHttpChunkedBodyStream<Stream&>,
      PicoHttpDetail::AsyncHttpChunkedBodyStream<
          PicoHttpDetail::AsyncExpectContinueStream<Stream&>>>
      body_;
  std::string collected_;
  std::optional<ResponseWriter> writer_;  ///< of the answer that is being sent
};

}  // namespace Orbi::Transport::PicoHttp
