#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include "orbi/log/logger.h"
#include "tesselibs/ascii.h"
#include "transport/asio/putback_stream.h"
#include "transport/asio/timeout_base_stream.h"
#include "transport/errors.h"
#include "transport/http/body_memory.h"
#include "transport/http/connection_table.h"
#include "transport/http/head_reader.h"
#include "transport/http/held_answer.h"
#include "transport/http/request_handler.h"
#include "transport/http/transaction.h"
#include "transport/http/web_page.h"
#include "transport/peer.h"
#include "transport/server_config.h"

namespace Orbi::Transport::PicoHttp {

/// What the connections of a server have in common.
struct ConnectionContext {
  ProtocolHandlerSpec spec;
  RequestHandler& handler;
  std::shared_ptr<Log::Logger> logger;
  std::shared_ptr<BodyMemory> bodies;
  std::unique_ptr<ConnectionTable> connections;
};

/// One connection: reads a head, collects the body, has the request handled, sends the answer, and
/// starts again while both sides want to keep the connection. Owned by its pending operation, or by
/// whoever owes it an answer; it is gone when neither is left. Works on the thread that runs the
/// I/O context.
///
/// Every step ends by starting exactly one operation that leads to the next step, or by closing.
template <class Socket>
class PicoHttpStreamHandler final
    : public ResponseReceiver,
      public std::enable_shared_from_this<PicoHttpStreamHandler<Socket>>,
      private BodyMemory::Reader,
      private ConnectionTable::Entry {
 public:
  using Context = ConnectionContext;

  PicoHttpStreamHandler(Socket socket, std::shared_ptr<const Context> context)
      : Entry(*context->connections),
        context_(std::move(context)),
        peer_(PeerOf(socket, context_->spec.front)),
        base_(std::make_shared<BaseStream>(
            WithoutDelay(std::move(socket)),
            Orbi::Asio::IOTimeouts{context_->spec.readTimeout, context_->spec.writeTimeout})),
        stream_(*base_),
        transaction_(stream_) {}

  void Start() {
    if (Enter(peer_.peer.party, !peer_.isFront)) return Guarded([this] { ReadHead(); });
    LogRequest("Connection closed: there are too many, and all of them hold requests");
  }

 private:
  using Self = PicoHttpStreamHandler;
  using BaseStream = Orbi::Asio::TimeoutBaseStream<Socket>;
  using Stream = Orbi::Asio::AsyncPutbackStream<BaseStream&>;
  using ErrorCode = boost::system::error_code;

  /// How much, and for how long, is still read from a client that has its last answer. Closing a
  /// socket with unread bytes makes the kernel send a reset, which can overtake the answer on its
  /// way.
  static constexpr std::size_t kDrainLimit = 64 * 1024;
  static constexpr std::chrono::seconds kDrainTime{1};
  /// How long an answer waits for what was announced to follow its request.
  static constexpr std::chrono::seconds kHoldTime{1};

  /// An answer leaves in one write, so there is nothing to be gained by holding back its last
  /// segment.
  static Socket WithoutDelay(Socket socket) {
    ErrorCode ignored;  // a socket that has gone already says so at the first read
    socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    return socket;
  }

  static ConnectionPeer PeerOf(const Socket& socket, std::optional<uid_t> front) {
    ErrorCode gone;
    const auto remote = socket.remote_endpoint(gone);
    const auto local = socket.local_endpoint(gone);
    return gone ? ConnectionPeer() : PeerOfConnection(local, remote, front);
  }

  // Reading a request.

  void ReadHead() {
    const auto free = head_.Free();
    stream_.async_read_some(boost::asio::buffer(free.data(), free.size()), Then(&Self::HeadReadCb));
  }

  void HeadReadCb(ErrorCode ec, std::size_t count) {
    if (ec == boost::asio::error::eof && head_.Empty()) return Leave();
    if (ec) return ReadFailed(ec);
    if (head_.Take(count, ec)) return HeadComplete();
    if (ec) return ReadFailed(ec);
    ReadHead();
  }

  void HeadComplete() {
    BeArriving();
    stream_.PutBack(head_.Rest());
    head_.WipeRest();
    // An interim answer would overtake the one that waits.
    if (held_ && head_.Expects() != Expectation::kNone) return Leave();
    if (head_.Expects() == Expectation::kUnknown) return RefuseExpectation();
    if (head_.Framing().contentLength > context_->spec.httpBodySizeLimitInBytes)
      return ReadFailed(Http::HttpError::kMessageTooLong);
    if (head_.Head().framed) {
      Log("Request is framed. Not supported");
      return AnswerBadRequest(
          "invalid request: framed and streamed content types are not supported");
    }
    if (head_.Framing().leftUnread && !MayHoldAnswer()) head_.DoNotKeep();
    if (IsOfForeignPage(head_.Head(), context_->spec.allowedOrigin)) {
      Log("Request of a web page. Refused");
      return AnswerBadRequest(
          "invalid request: web pages may not call this service, except those of the origin that "
          "the preference console_origin names");
    }
    if (!IsAcceptable()) {
      Log("Request is considered as bad");
      return AnswerBadRequest("invalid request: no Content-Type or method that is supported here");
    }
    LogRequest("Request head: ", head_.Head());
    transaction_.Begin(head_.Framing(), head_.Expects() == Expectation::kContinue);
    ClaimMemory();
  }

  void ClaimMemory() {
    const auto& framing = head_.Framing();
    const std::size_t length =
        framing.chunked ? context_->spec.httpBodySizeLimitInBytes : framing.contentLength;
    if (length <= BodyMemory::kUnclaimed) return ReadBody();
    claim_ = std::make_unique<BodyMemory::Claim>(context_->bodies,
                                                 PeerOfRequest(peer_, head_.Head()).party, length,
                                                 static_cast<BodyMemory::Reader&>(*this));
    if (claim_->IsAdmitted()) return ReadBody();
    if (held_) return ReadFailed(boost::asio::error::timed_out);  // an answer waits, but not long
    claim_->AsyncWait(context_->spec.readTimeout, Then(&Self::AdmittedCb));
  }

  void AdmittedCb(ErrorCode) {
    if (!claim_ || !claim_->IsAdmitted()) return ReadFailed(boost::asio::error::timed_out);
    ReadBody();
  }

  void ReadBody() {
    transaction_.AsyncReadBody(context_->spec.httpBodySizeLimitInBytes, Then(&Self::RequestReadCb));
  }

  /// Whether what follows a request whose announced body is not read may be taken as the next one.
  /// A proxy's next bytes may be another client's; and to a HEAD, proxies take an answer as ended
  /// by its head and look no further.
  [[nodiscard]] bool MayHoldAnswer() const {
    const auto& head = head_.Head();
    return Ascii::EqualsIgnoringCase(head.method, "get") && !peer_.isFront && !PassedProxy(head);
  }

  bool IsAcceptable() {
    const auto& head = head_.Head();
    const auto& extractors = context_->spec.extractors;
    const auto accepts = [&head](const auto& extractor) { return extractor(head); };
    return (!extractors || std::ranges::all_of(*extractors, accepts)) &&
           (request_ = context_->handler.Accept(head, PeerOfRequest(peer_, head)));
  }

  void RequestReadCb(ErrorCode ec, std::string body) {
    if (ec) return ReadFailed(ec);
    BeBusy();
    if (claim_) claim_->Complete(body.size());
    std::exchange(request_, nullptr)
        ->Handle(std::move(body), ResponseSink(this->shared_from_this()));
  }

  /// A client that speaks wrongly is told so; to one that is gone or silent there is nothing to
  /// say.
  void ReadFailed(const ErrorCode& ec) {
    claim_.reset();
    Log("RequestReadCb: orbi.recv.failed: ", ec, " ", ec.message());
    const bool clientsFault =
        ec == Http::HttpError::kMessageTooLong ||
        (ec.category() == PicoHttpCategory() && ec != PicoHttpError::kIncompleteBody);
    if (!clientsFault) return Leave();
    AnswerBadRequest(ec.message());
  }

  // Answering it.

  void Respond(Response response) override {
    claim_.reset();
    if (head_.Framing().leftUnread && head_.Head().keepAlive && !held_)
      Hold(std::move(response));
    else
      Send(std::move(response));
  }

  void Hold(Response response) {
    held_.emplace(std::move(response), head_.Head());
    transaction_.End();
    head_.Reset();
    base_->FinishBy(Orbi::Asio::DeadlineIn(kHoldTime));
    ReadHead();
  }

  void Send(Response response) {
    sent_ = std::exchange(response.sent, nullptr);
    std::string earlier;
    if (held_) {
      earlier = held_->Bytes();
      sent_ = [first = std::move(held_->sent), second = std::move(sent_)](const ErrorCode& ec) {
        for (const auto& told : {first, second})
          if (told) told(ec);
      };
      EndWithThis();
    }
    transaction_.AsyncWriteResponse(std::move(response), head_.Head(), std::move(earlier),
                                    Then(&Self::ResponseSentCb));
  }

  /// Ends the connection, with the answer that waits if there is one.
  void Leave() {
    if (!held_) return base_->Close();
    sent_ = std::move(held_->sent);
    const RequestHead head = held_->Head();
    Response response = held_->AsLast();
    EndWithThis();
    transaction_.AsyncWriteResponse(std::move(response), head, {}, Then(&Self::ResponseSentCb));
  }

  void EndWithThis() {
    held_.reset();
    last_ = true;
    base_->FinishBy(Orbi::Asio::SteadyClock::time_point::max());
  }

  void Abandon() noexcept override {
    Guarded([this] { Leave(); });
  }

  void ResponseSentCb(ErrorCode ec, std::size_t sent) {
    const auto& writer = transaction_.Writer();
    const bool headSent = sent >= writer.HeadLength();
    if (headSent) LogRequest("Response head sent: ", writer.Status());
    if (ec) {
      Log("ResponseSentCb: orbi.send.failed: ",
          headSent ? "Failed to sent response body" : "Failed to sent response head", ": ", ec, " ",
          ec.message(), " ", writer.Failure());
    }
    if (const auto told = std::exchange(sent_, nullptr)) told(ec);
    const bool brokenOff = ec == PicoHttpError::kIncompleteBody;
    if (ec && !brokenOff) return base_->Close();
    const bool keep = !brokenOff && !last_ && head_.Head().keepAlive && writer.KeepsConnection();
    transaction_.End();
    head_.Reset();
    if (!keep) return Drain();
    BeIdle();
    ReadHead();
  }

  // NOLINTNEXTLINE(performance-unnecessary-value-param): the linter does not see that it is moved
  void AnswerBadRequest(std::string text) {
    Send({.headers = {{":status", "400"},
                      {":reason", "Bad Request"},
                      {"Content-Type", "text/plain"},
                      {"Connection", "close"}},
          .body = std::move(text)});
  }

  /// The answer is a fixed text that clients of this service know: it ends in a zero byte, and no
  /// empty line follows.
  void RefuseExpectation() {
    Log("Invalid Http request: Expect header value is not 100-continue");
    static constexpr char kAnswer[] =
        "HTTP/1.1 417 Expectation Failed\r\nConnection: close\r\nContent-Length: 0\r\n";
    boost::asio::async_write(stream_, boost::asio::buffer(kAnswer, sizeof kAnswer),
                             Then(&Self::RefusalSentCb));
  }

  void RefusalSentCb(ErrorCode ec, std::size_t) {
    if (ec) return base_->Close();
    head_.Reset();
    Drain();
  }

  // Closing.

  void Drain() {
    base_->ShutdownSend();
    base_->FinishBy(Orbi::Asio::DeadlineIn(kDrainTime));
    DrainNext();
  }

  void DrainNext() {
    const auto scratch = head_.Free();
    base_->async_read_some(boost::asio::buffer(scratch.data(), scratch.size()),
                           Then(&Self::DrainedCb));
  }

  void DrainedCb(ErrorCode ec, std::size_t count) {
    drained_ += count;
    if (ec || drained_ >= kDrainLimit) return base_->Close();
    DrainNext();
  }

  // What others want of this connection.

  [[nodiscard]] std::size_t Arrived() const override { return transaction_.Collected(); }

  void GiveUp() noexcept override {
    Log("Connection closed: its request arrives too slowly while others wait for its memory");
    base_->Close();
  }

  void MakeRoom() noexcept override {
    LogRequest("Connection closed: it holds no whole request, and another takes its place");
    base_->Close();
    if (claim_ && !claim_->IsAdmitted()) claim_.reset();  // ends the wait
  }

  // Common to all steps.

  /// A completion handler that keeps the connection alive up to its next step.
  template <class... Args>
  auto Then(void (Self::*step)(Args...)) {
    return [self = this->shared_from_this(), step](auto&&... args) {
      self->Guarded([&] { ((*self).*step)(std::forward<decltype(args)>(args)...); });
    };
  }

  /// Whatever goes wrong with one request, the server and its other connections go on.
  template <class Step>
  void Guarded(Step&& step) {
    try {
      step();
    } catch (const std::exception& error) {
      Log("Connection closed: ", error.what());
      base_->Close();
    }
  }

  template <class... Args>
  void Log(const Args&... args) {
    Log::Write(*context_->logger, Log::kDebug, args...);
  }

  template <class... Args>
  void LogRequest(const Args&... args) {
    Log::Write(*context_->logger, Log::kTrace, args...);
  }

  const std::shared_ptr<const Context> context_;
  const ConnectionPeer peer_;
  const std::shared_ptr<BaseStream> base_;
  Stream stream_;
  HeadReader head_;
  HttpServerTransaction<Stream> transaction_;
  std::shared_ptr<AcceptedRequest> request_;    ///< whose body is being read
  std::unique_ptr<BodyMemory::Claim> claim_;    ///< until the request is answered
  std::function<void(const ErrorCode&)> sent_;  ///< whom to tell how the answer's sending ends
  std::optional<HeldAnswer> held_;
  bool last_ = false;  ///< the answer that is being sent is the connection's last
  std::size_t drained_ = 0;
};

}  // namespace Orbi::Transport::PicoHttp
