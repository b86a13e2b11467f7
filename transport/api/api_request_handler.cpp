#include "transport/api/api_request_handler.h"

#include <exception>
#include <optional>
#include <ostream>
#include <string_view>
#include <utility>
#include <variant>

#include <boost/asio/dispatch.hpp>
#include <boost/system/error_code.hpp>

#include "orbi/json_rpc/request.h"
#include "orbi/json_rpc/response.h"
#include "orbi/json_rpc/update_execution_ctx.h"
#include "orbi/std/errors.h"
#include "transport/api/request_spec.h"
#include "transport/asio/handler_memory.h"
#include "transport/http/response.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using Protocol::Json::ApiResponseSerializer;
using Protocol::Json::ProtocolError;
using Protocol::Json::ProtocolErrorCode;
using SpecPtr = std::shared_ptr<const ApiRequestHandlerSpec>;

/// Streamed answers go out in pieces of this size.
constexpr std::size_t kPieceSize = std::size_t{16} * 1024;

/// One request on its way to its answer. Its address tells its log lines from those of others.
///
/// Begins and ends on the thread that runs the server's I/O context. In between it belongs to the
/// thread where the provider's result arrives, which makes the answer of it.
class ApiExchange : public AcceptedRequest, public std::enable_shared_from_this<ApiExchange> {
 public:
  ApiExchange(SpecPtr handler, const RequestSpec& spec, const RequestHead& head, Core::Peer peer)
      : handler_(std::move(handler)), spec_(spec), head_(head), peer_(std::move(peer)) {}

  void Handle(std::string body, ResponseSink sink) override;

  void LogLine(int level, std::string_view what, std::string_view reason = {}) const {
    Log::Write(*handler_->logger, level, what, '[', static_cast<const void*>(this), ']',
               reason.empty() ? "" : " ", reason);
  }

 private:
  class Delivery;

  /// How an answer's way to the client is logged, once it has been sent and when it could not be.
  struct LogTexts {
    int level;
    std::string_view sent;
    std::string_view failed;
  };
  static constexpr LogTexts kResult{Log::kTrace, "Request handled", "Handle request error: "};
  static constexpr LogTexts kInvalidRequest{
      Log::kTrace, "Sent InvalidRequest response:", "Failed to send InvalidRequest response:"};
  static constexpr LogTexts kNotSerialized{
      Log::kDebug, "Response head sent (Deserializer error):", "Failed to sent Deserializer error"};
  using Body = decltype(Response::body);

  void Decode(std::string& body);
  void Call(Protocol::Json::ApiCall call);
  void Failed(std::string_view reason);
  template <class Step>
  void Guarded(Step step) const noexcept;
  void Complete(Core::MethodResult result) noexcept;
  void SendAnswer() noexcept;
  [[nodiscard]] Response AnswerOrTellWhyNot(Core::MethodResult result);
  [[nodiscard]] Response Answer(Core::MethodResult result, const LogTexts& texts);
  void AnswerInvalidRequest(const ProtocolError& error);
  /// Words the messages in an output or an error.
  template <class Content>
  void Localize(Content& content) const;
  [[nodiscard]] Body Serialize(Core::MethodResult result);
  [[nodiscard]] Response MakeResponse(const std::string& errorId, Body body, const LogTexts& texts);
  void Sent(const LogTexts& texts, const boost::system::error_code& ec) const;

  const SpecPtr handler_;
  const RequestSpec spec_;
  const RequestHead& head_;  ///< until the request is answered
  Core::Peer peer_;          ///< until the call has it
  ResponseSink sink_{nullptr};
  Protocol::Json::RequestId id_;
  std::string language_;
  bool called_ = false;  ///< the provider owes the result
  /// On its way to the thread that sends it; empty when none could be made.
  std::optional<Response> answer_;
  Asio::HandlerMemory memory_;  ///< for that way
  std::string notSerialized_;   ///< why the result could not be
};

/// An answer that is written while it is sent. What is wrong with it after its beginning can only
/// end the connection.
class AnswerStream : public BodySource {
 public:
  AnswerStream(std::shared_ptr<const ApiExchange> exchange,
               std::unique_ptr<Protocol::Json::ResponseText> text)
      : exchange_(std::move(exchange)), text_(std::move(text)) {
    Fill(first_);
  }

  void Next(std::string& piece) override {
    if (!first_.empty()) {
      piece = std::exchange(first_, {});
      return;
    }
    piece.clear();
    try {
      Fill(piece);
    } catch (const Protocol::Json::JsonSerializationError& error) {
      exchange_->LogLine(Log::kDebug, "Response head sent (Deserializer error):", error.what());
      throw;
    }
  }

 private:
  void Fill(std::string& piece) {
    if (more_) more_ = text_->Write(piece, kPieceSize);
  }

  const std::shared_ptr<const ApiExchange> exchange_;
  const std::unique_ptr<Protocol::Json::ResponseText> text_;
  bool more_ = true;
  std::string first_;
};

/// An answer's way to the thread that sends it. One that does not arrive there takes the answer
/// along: that and its exchange keep each other.
class ApiExchange::Delivery {
 public:
  explicit Delivery(std::shared_ptr<ApiExchange> exchange) : exchange_(std::move(exchange)) {}
  Delivery(Delivery&&) noexcept = default;
  Delivery& operator=(Delivery&&) = delete;
  ~Delivery() {
    if (exchange_) exchange_->answer_.reset();
  }

  void operator()() {
    const auto exchange = std::exchange(exchange_, nullptr);
    exchange->SendAnswer();
  }

 private:
  std::shared_ptr<ApiExchange> exchange_;
};

void ApiExchange::Handle(std::string body, ResponseSink sink) {
  sink_ = std::move(sink);
  if (!spec_.bodyCounts) body.clear();
  LogLine(Log::kTrace, "Request received");
  try {
    Decode(body);
  } catch (const std::exception& error) {
    Failed(error.what());
  } catch (...) {
    Failed("unknown exception");
  }
}

void ApiExchange::Decode(std::string& body) {
  if (body.size() > handler_->requestSizeLimitInBytes) {
    return AnswerInvalidRequest(
        {ProtocolErrorCode::kInvalidRequest, "protocol error: message too long"});
  }
  Protocol::Json::ApiRequest request = spec_.deserializer->Deserialize(body);
  id_ = std::move(request.id);
  if (const auto* error = std::get_if<ProtocolError>(&request.content)) {
    return AnswerInvalidRequest(*error);
  }

  auto& call = std::get<Protocol::Json::ApiCall>(request.content);
  std::vector<boost::system::error_code> passedOver;
  const auto mismatch = Provider::JsonRpc1_1::UpdateExecutionCtxHelper::Update(
      head_.headers, call.method, *call.context, *handler_->localizer, passedOver);
  if (mismatch) return AnswerInvalidRequest(*mismatch);
  for (const auto& ec : passedOver) LogLine(Log::kTrace, "Localization error: ", ec.message());
  call.context->peer = std::move(peer_);
  Call(std::move(call));
}

void ApiExchange::Call(Protocol::Json::ApiCall call) {
  // Kept for the answer: authentication gives the call a localisation of its own.
  language_ = call.context->localization.language;
  Core::MethodCompletion completion([self = shared_from_this()](Core::MethodResult result) {
    self->Complete(std::move(result));
  });
  called_ = true;
  handler_->provider->Invoke(call.method, std::move(call.input), std::move(call.context),
                             std::move(completion));
}

void ApiExchange::Failed(std::string_view reason) {
  LogLine(Log::kDebug, "Handle request error: ", reason);
  // A provider that throws has dropped its completion, which brings an empty result.
  if (!called_) Complete({});
}

/// An exception out of a step would end the server. Whoever gets no answer then loses the
/// connection with this exchange.
template <class Step>
void ApiExchange::Guarded(Step step) const noexcept {
  try {
    step();
  } catch (const std::exception& error) {
    LogLine(Log::kDebug, "Handle request error: ", error.what());
  } catch (...) {
    LogLine(Log::kDebug, "Handle request error: ", "unknown exception");
  }
}

void ApiExchange::Complete(Core::MethodResult result) noexcept {
  Guarded([&] { answer_ = AnswerOrTellWhyNot(std::move(result)); });
  boost::asio::dispatch(handler_->ioContext, Asio::HoldIn(memory_, Delivery(shared_from_this())));
}

void ApiExchange::SendAnswer() noexcept {
  auto sink = std::move(sink_);
  if (answer_) Guarded([&] { sink(*std::exchange(answer_, std::nullopt)); });
}

Response ApiExchange::AnswerOrTellWhyNot(Core::MethodResult result) {
  try {
    return Answer(std::move(result), kResult);
  } catch (const Protocol::Json::JsonSerializationError& error) {
    notSerialized_ = error.what();
    return Answer({}, kNotSerialized);
  }
}

Response ApiExchange::Answer(Core::MethodResult result, const LogTexts& texts) {
  if (!result.output && !result.error) {
    constexpr auto kInternal = Com::Tessel::Orbi::Std::Errors::InternalServerError;
    result.error = *Data::ErrorValue::Create(std::string(kInternal.id()));
  }
  std::string errorId;
  if (result.error) {
    Localize(*result.error);
    errorId = result.error->id;
  } else {
    Localize(*result.output);
  }
  return MakeResponse(errorId, Serialize(std::move(result)), texts);
}

void ApiExchange::AnswerInvalidRequest(const ProtocolError& error) {
  LogLine(Log::kDebug, "Handle request error: ", error.message);
  sink_(MakeResponse("InvalidRequest", ApiResponseSerializer::Serialize(id_, error),
                     kInvalidRequest));
}

template <class Content>
void ApiExchange::Localize(Content& content) const {
  boost::system::error_code ec;
  handler_->localizer->Localize(content, language_.empty() ? L10n::kDefaultLocale : language_,
                                L10n::Unworded::kDefaultText, ec);
  if (ec) LogLine(Log::kTrace, "Localization error: ", ec.message());
}

ApiExchange::Body ApiExchange::Serialize(Core::MethodResult result) {
  if (!spec_.streamResponse) return spec_.serializer->Serialize(id_, std::move(result));
  return std::make_unique<AnswerStream>(shared_from_this(),
                                        spec_.serializer->Start(id_, std::move(result)));
}

Response ApiExchange::MakeResponse(const std::string& errorId, Body body, const LogTexts& texts) {
  Response response{.headers = {},
                    .body = std::move(body),
                    .sent = [self = shared_from_this(), &texts](
                                const boost::system::error_code& ec) { self->Sent(texts, ec); }};
  response.headers.reserve(5);
  const auto add = [&response](std::string_view name, std::string_view value) {
    response.headers.push_back({name, std::string(value)});
  };
  add(":status", "200");
  add(":reason", "OK");
  add("Content-Type", NameOf(spec_.responseFormat));
  add("Connection", spec_.keepAlive ? "Keep-Alive" : "close");
  if (!errorId.empty()) add("orbi-error", errorId);
  return response;
}

void ApiExchange::Sent(const LogTexts& texts, const boost::system::error_code& ec) const {
  if (ec) {
    LogLine(Log::kDebug, texts.failed, ec.message());
  } else {
    LogLine(texts.level, texts.sent, notSerialized_);
  }
}

}  // namespace

PicoHttpApiRequestHandler::PicoHttpApiRequestHandler(ApiRequestHandlerSpec spec)
    : spec_(std::make_shared<const ApiRequestHandlerSpec>(std::move(spec))) {}

std::shared_ptr<AcceptedRequest> PicoHttpApiRequestHandler::Accept(const RequestHead& head,
                                                                   Core::Peer peer) {
  const RequestSpec spec = ExtractRequestSpec(head);
  if (!spec.deserializer || !spec.serializer) return nullptr;
  return std::make_shared<ApiExchange>(spec_, spec, head, std::move(peer));
}

}  // namespace Orbi::Transport::PicoHttp
