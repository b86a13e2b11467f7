#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <boost/system/error_code.hpp>

namespace Orbi::Transport::PicoHttp {

/// Produces a streamed body piece by piece, each only when the one before it has been sent, so that
/// the whole document never stands in memory.
class BodySource {
 public:
  virtual ~BodySource() = default;

  /// Replaces `piece` by the next part of the body; an empty piece is the end, after which the
  /// source is not asked again. Pieces of about 16 KiB are best: a longer one is cut into chunks of
  /// that size, shorter ones are sent as they are.
  /// @throws any exception: the connection is then closed without the closing chunk, so that the
  ///     client sees that the body is not whole
  virtual void Next(std::string& piece) = 0;
};

struct ResponseHeader {
  std::string_view name;  ///< a text that outlives the response, usually a literal
  std::string value;      ///< without line ends
};

/// An answer. The transport adds Content-Length or Transfer-Encoding, and Server.
struct Response {
  /// ":status" and ":reason" must be among them; the others are sent in this order. "Connection:
  /// close" closes the connection once the answer is sent.
  std::vector<ResponseHeader> headers;
  /// A sized body, or the source of one that is sent in chunks. A source is not null.
  std::variant<std::string, std::unique_ptr<BodySource>> body;
  /// Told, on the thread that runs the server's I/O context, when the last byte has been written or
  /// writing has failed.
  /// Destroyed without a call when the connection ends for another reason. May be empty.
  std::function<void(const boost::system::error_code&)> sent{};
};

/// Where the answer of one request goes: the connection behind a ResponseSink.
class ResponseReceiver {
 public:
  virtual void Respond(Response response) = 0;
  /// Nobody will answer this request.
  virtual void Abandon() noexcept = 0;

 protected:
  ~ResponseReceiver() = default;
};

/// The obligation to answer one request, exactly once. A sink that is destroyed without having been
/// called closes the connection: a client never waits for an answer that nobody owes it.
///
/// To be called and destroyed on the thread that runs the server's I/O context; there at any time,
/// also from within RequestHandler::Handle. Keeps the connection alive. A sink left over when that
/// thread has ended is destroyed before the I/O context.
class ResponseSink {
 public:
  explicit ResponseSink(std::shared_ptr<ResponseReceiver> receiver)
      : receiver_(std::move(receiver)) {}
  ResponseSink(ResponseSink&&) noexcept = default;
  ResponseSink& operator=(ResponseSink&& other) noexcept {
    std::swap(receiver_, other.receiver_);
    return *this;
  }
  ~ResponseSink() {
    if (receiver_) receiver_->Abandon();
  }

  /// Sends the response. The request's head must not be used after this.
  /// @throws std::logic_error when the request has been answered already
  void operator()(Response response) {
    if (!receiver_) throw std::logic_error("request answered twice");
    std::exchange(receiver_, nullptr)->Respond(std::move(response));
  }

 private:
  std::shared_ptr<ResponseReceiver> receiver_;
};

}  // namespace Orbi::Transport::PicoHttp
