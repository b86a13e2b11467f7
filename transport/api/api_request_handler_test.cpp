#include "transport/api/api_request_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "orbi/std/errors.h"
#include "transport/api/media_type.h"
#include "transport/api/request_spec.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using Core::MethodCompletion;
using Core::MethodResult;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace Errors = Com::Tessel::Orbi::Std::Errors;

constexpr const char* kCleanStreamType = "application/vnd.tessel.orbi.clean.stream.json";

/// A request's head with the fields in the order that the head reader leaves them in.
class Head {
 public:
  explicit Head(std::map<std::string, std::string> fields) : fields_(std::move(fields)) {
    for (const auto& [name, value] : fields_) headers_.push_back({name, value});
    head_.headers = headers_;
    const auto connection = fields_.find("connection");
    head_.keepAlive = connection == fields_.end() || connection->second != "close";
  }
  Head(const Head&) = delete;
  Head& operator=(const Head&) = delete;

  operator const RequestHead&() const { return head_; }

 private:
  const std::map<std::string, std::string> fields_;
  std::vector<HeaderField> headers_;
  RequestHead head_;
};

class Lines : public Log::Logger {
 public:
  std::unique_ptr<Log::LogRecord> CreateRecord(int level) override {
    return std::make_unique<Record>(*this, level);
  }
  /// Level and text of each line, the identity in brackets made anonymous.
  std::vector<std::string> lines;

 private:
  class Record : public Log::LogRecord {
   public:
    Record(Lines& log, int level) : log_(log), level_(level) {}
    std::ostream& Stream() override { return stream_; }
    ~Record() override {
      std::string text = stream_.str();
      const auto open = text.find("[0x");
      if (open != std::string::npos) text.replace(open, text.find(']') - open + 1, "[#]");
      log_.lines.push_back(std::to_string(level_) + " " + text);
    }

   private:
    Lines& log_;
    const int level_;
    std::ostringstream stream_;
  };
};

/// The connection: keeps what it is told to send.
class Connection : public ResponseReceiver {
 public:
  virtual ~Connection() = default;

  void Respond(Response response) override {
    for (const auto& header : response.headers) {
      text += std::string(header.name) + ": " + header.value + "\n";
    }
    text += "\n";
    if (const auto* body = std::get_if<std::string>(&response.body)) {
      text += *body;
    } else {
      Drain(*std::get<std::unique_ptr<BodySource>>(response.body));
    }
    if (response.sent) response.sent(result);
  }
  void Abandon() noexcept override { abandoned = true; }

  boost::system::error_code result;  ///< of the sending
  std::string text;
  std::vector<std::size_t> pieces;
  bool abandoned = false;

 private:
  void Drain(BodySource& source) {
    try {
      for (std::string piece;; text += piece) {
        source.Next(piece);
        if (piece.empty()) return;
        pieces.push_back(piece.size());
      }
    } catch (const std::exception&) {
      result = boost::system::errc::make_error_code(boost::system::errc::io_error);
    }
  }
};

/// Answers every call by a function.
class Provider : public Core::AsyncApiProvider {
 public:
  using Function = std::function<void(const Core::MethodIdentifier&, Data::Value,
                                      Core::ExecutionContextPtr, MethodCompletion)>;
  explicit Provider(Function function) : function_(std::move(function)) {}

  std::string_view Name() const override { return "Provider"; }
  void Invoke(const Core::MethodIdentifier& method, Data::Value input,
              Core::ExecutionContextPtr context, MethodCompletion completion) override {
    function_(method, std::move(input), std::move(context), std::move(completion));
  }

 private:
  const Function function_;
};

Provider::Function Answering(MethodResult result) {
  return [result](const auto&, auto, auto, MethodCompletion completion) { completion(result); };
}

const std::map<std::string, std::string> kJson = {{"content-type", "application/json"}};
const std::string kCall =
    R"({"jsonrpc":"2.0","id":1,"method":"invoke","params":{"serviceId":"s","operationId":"o"}})";

class ApiRequestHandlerTest : public ::testing::Test {
 protected:
  void Handle(Provider::Function function, const Head& head = Head(kJson),
              const std::string& body = kCall) {
    PicoHttpApiRequestHandler handler({std::make_shared<Provider>(std::move(function)), io_, log_});
    EXPECT_TRUE(handler.Accepts(head));
    handler.Handle(head, body, ResponseSink(connection_));
    io_.run();
    io_.restart();
  }

  boost::asio::io_context io_;
  std::shared_ptr<Lines> log_ = std::make_shared<Lines>();
  std::shared_ptr<Connection> connection_ = std::make_shared<Connection>();
};

TEST(RequestSpec, FollowsTheHeaders) {
  const struct {
    std::map<std::string, std::string> headers;
    bool accepted;
    MediaType format;
    bool stream;
  } cases[] = {
      {{{"content-type", "application/json; charset=utf-8"}}, true, kPlainJson, false},
      {{{"content-type", "application/vnd.tessel.orbi.cleanjson"}}, false, kPlainJson, false},
      {{{"content-type", "application/json, application/vnd.tessel.orbi.framed"}},
       false,
       kPlainJson,
       false},
      {{{"content-type", "text/json"}}, false, kPlainJson, false},
      {{{"accept", "application/json"}}, false, kPlainJson, false},
      {{{"accept", "*/*"}, {"content-type", "application/json"}}, true, kPlainJson, false},
      {{{"accept", "application/vnd.tessel.orbi.cleanjson, application/json"}},
       false,
       kCleanJson,
       false},
      {{{"accept", "application/vnd.tessel.orbi.framed"}}, false, kPlainJson, false},
      {{{"accept", "application/vnd.tessel.orbi.cframed.cleanjson"}}, false, kPlainJson, false},
      {{{"accept", "application/vnd.tessel.orbi.stream.json"}}, false, kPlainStream, true},
      {{{"accept", std::string("application/json;q=0.9,") + kCleanStreamType}},
       false,
       kCleanStream,
       true},
  };
  for (const auto& c : cases) {
    const RequestSpec spec = ExtractRequestSpec(Head(c.headers));
    const std::string name = c.headers.begin()->second;
    EXPECT_EQ(spec.deserializer != nullptr, c.accepted) << name;
    EXPECT_EQ(spec.responseFormat, c.format) << name;
    EXPECT_EQ(spec.streamResponse, c.stream) << name;
  }
}

TEST_F(ApiRequestHandlerTest, ResultIsAnsweredAndLogged) {
  Handle(Answering(MethodResult::Output(Data::Value("text"))));
  EXPECT_EQ(connection_->text,
            ":status: 200\n:reason: OK\nContent-Type: application/json\nConnection: Keep-Alive\n\n"
            R"({"jsonrpc":"2.0","id":1,"result":{"output":"text"}})");
  EXPECT_THAT(log_->lines, ElementsAre("0 Request received[#]", "0 Request handled[#]"));
}

TEST_F(ApiRequestHandlerTest, CallCarriesWhatHeadersAndPayloadSay) {
  const Head head({{"accept-language", "de"},
                   {"content-type", "application/json"},
                   {"orbi-ctx-trace", "t"},
                   {"orbi-service", "s"}});
  Handle(
      [](const Core::MethodIdentifier& method, const Data::Value& input,
         const Core::ExecutionContextPtr& context, MethodCompletion completion) {
        EXPECT_EQ(method.ToText(), "s.o");
        EXPECT_EQ(input, Data::Value(Data::Structure{"", {}}.Add("x", Data::Value(1))));
        EXPECT_EQ(context->localization.language, "de");
        EXPECT_EQ(context->application.at("trace"), "t");
        EXPECT_EQ(context->security->password, "p");
        completion(MethodResult::Output(Data::Value()));
      },
      head,
      R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":"s","operationId":"o",
          "input":{"x":1},"ctx":{"securityCtx":{"password":"p"}}}})");
  EXPECT_THAT(connection_->text, HasSubstr(R"("id":null,"result":{"output":null})"));
}

TEST_F(ApiRequestHandlerTest, ApiErrorIsNamedInTheHead) {
  const Head head({{"accept", "application/vnd.tessel.orbi.cleanjson"},
                   {"connection", "close"},
                   {"content-type", "application/json"}});
  Handle(Answering(MethodResult::Error(Errors::NotFound())), head);
  EXPECT_EQ(
      connection_->text,
      ":status: 200\n:reason: OK\nContent-Type: application/vnd.tessel.orbi.cleanjson\n"
      "Connection: close\norbi-error: com.tessel.orbi.std.errors.not_found\n\n"
      R"({"jsonrpc":"2.0","id":1,"result":{"error":{"com.tessel.orbi.std.errors.not_found":{"messages":[]}}}})");
}

TEST_F(ApiRequestHandlerTest, ErrorIsWordedForTheClient) {
  Handle(Answering(MethodResult::Error(Errors::OperationNotFound(
      {{"orbi.provider.interface.unknown", "default", {"x"}, std::nullopt}}))));
  EXPECT_THAT(connection_->text, HasSubstr(R"("localized":{"OPTIONAL":"There is no interface)"));
}

TEST_F(ApiRequestHandlerTest, WhateverGoesWrongInTheProviderIsAnInternalError) {
  const Provider::Function wrong[] = {
      Answering(MethodResult{}),
      [](const auto&, auto, auto, MethodCompletion) {},
      [](const auto&, auto, auto, MethodCompletion) { throw std::runtime_error("out of order"); },
      [](const auto&, auto, auto, MethodCompletion) { throw 1; },
  };
  for (const auto& function : wrong) {
    connection_ = std::make_shared<Connection>();
    Handle(function);
    EXPECT_THAT(connection_->text,
                HasSubstr("orbi-error: com.tessel.orbi.std.errors.internal_server_error\n\n"
                          R"({"jsonrpc":"2.0","id":1,"result":{"error":{"ERROR":)"
                          R"({"com.tessel.orbi.std.errors.internal_server_error":{}}}}})"));
  }
  EXPECT_THAT(log_->lines, Contains("1 Handle request error: [#] out of order"));
}

TEST_F(ApiRequestHandlerTest, BodyThatIsNoCallIsAnInvalidRequest) {
  const struct {
    std::map<std::string, std::string> headers;
    std::string body;
    const char* error;
  } cases[] = {
      {kJson, "{", R"("id":null,"error":{"code":-32700,"message":"protocol error: Missing)"},
      {kJson, "", R"("id":null,"error":{"code":-32700,"message":"protocol error: )"},
      {{{"content-type", "application/json"}, {"orbi-operation", "p"}},
       kCall,
       R"("id":1,"error":{"code":-32602,"message":"Mismatching operation identifier in HTTP header and payload")"},
      {kJson, std::string(2'500'001, ' '), R"("error":{"code":-32600,"message":"protocol error: )"},
  };
  for (const auto& c : cases) {
    connection_ = std::make_shared<Connection>();
    log_->lines.clear();
    Handle([](const auto&, auto, auto, MethodCompletion) { FAIL(); }, Head(c.headers), c.body);
    EXPECT_THAT(connection_->text, StartsWith(":status: 200\n"));
    EXPECT_THAT(connection_->text, HasSubstr("orbi-error: InvalidRequest\n"));
    EXPECT_THAT(connection_->text, HasSubstr(c.error));
    EXPECT_THAT(log_->lines,
                ElementsAre("0 Request received[#]", StartsWith("1 Handle request error: [#] "),
                            "0 Sent InvalidRequest response:[#]"));
  }
}

TEST_F(ApiRequestHandlerTest, AnswerThatCannotBeSentIsLogged) {
  connection_->result = boost::system::errc::make_error_code(boost::system::errc::broken_pipe);
  Handle(Answering(MethodResult::Output(Data::Value())));
  Handle(Answering(MethodResult::Output(Data::Value(NAN))));
  Handle(Answering({}), Head(kJson), "{");
  EXPECT_THAT(
      log_->lines,
      ElementsAre("0 Request received[#]", "1 Handle request error: [#] Broken pipe",
                  "0 Request received[#]", "1 Failed to sent Deserializer error[#] Broken pipe",
                  "0 Request received[#]", StartsWith("1 Handle request error: [#] "),
                  "1 Failed to send InvalidRequest response:[#] Broken pipe"));
}

TEST_F(ApiRequestHandlerTest, StreamedAnswerComesInPieces) {
  const Head head({{"accept", kCleanStreamType}, {"content-type", "application/json"}});
  const std::string text(100'000, 'x');
  Handle(Answering(MethodResult::Output(text)), head);
  EXPECT_GT(connection_->pieces.size(), 6U);
  for (const std::size_t size : connection_->pieces) EXPECT_LE(size, 16U * 1024);
  EXPECT_THAT(connection_->text, HasSubstr(std::string("Content-Type: ") + kCleanStreamType));
  EXPECT_THAT(connection_->text,
              HasSubstr(R"({"jsonrpc":"2.0","id":1,"result":{"output":")" + text + "\"}}"));
}

TEST_F(ApiRequestHandlerTest, ResultThatHasNoTextIsAnInternalErrorUntilItsHeadIsSent) {
  const Head stream({{"accept", kCleanStreamType}, {"content-type", "application/json"}});
  const Head whole(kJson);
  for (const Head* head : {&whole, &stream}) {
    connection_ = std::make_shared<Connection>();
    Handle(Answering(MethodResult::Output(Data::Value(NAN))), *head);
    EXPECT_THAT(connection_->text, HasSubstr("errors.internal_server_error\":{}"));
    EXPECT_THAT(log_->lines.back(),
                StartsWith("1 Response head sent (Deserializer error):[#] JSON"));
  }
  connection_ = std::make_shared<Connection>();
  Data::List late{{Data::Value(std::string(20'000, 'x')), Data::Value(NAN)}};
  Handle(Answering(MethodResult::Output(std::move(late))), stream);
  EXPECT_TRUE(connection_->result);
  EXPECT_THAT(log_->lines,
              Contains(StartsWith("1 Response head sent (Deserializer error):[#] JSON")));
}

TEST_F(ApiRequestHandlerTest, ResultFromAnotherThreadIsTakenToTheServersThread) {
  std::thread worker;
  const auto work = boost::asio::make_work_guard(io_);
  const std::thread::id here = std::this_thread::get_id();
  class Receiver final : public Connection {
   public:
    explicit Receiver(boost::asio::io_context& io) : io_(io) {}
    void Respond(Response response) override {
      thread = std::this_thread::get_id();
      Connection::Respond(std::move(response));
      io_.stop();
    }
    std::thread::id thread;

   private:
    boost::asio::io_context& io_;
  };
  const auto receiver = std::make_shared<Receiver>(io_);
  connection_ = receiver;
  Handle([&](const auto&, auto, auto, MethodCompletion completion) {
    worker = std::thread([completion = std::move(completion)]() mutable {
      completion(MethodResult::Output(Data::Value()));
    });
  });
  worker.join();
  EXPECT_EQ(receiver->thread, here);
}

TEST_F(ApiRequestHandlerTest, UnansweredRequestIsGivenUpWithItsServer) {
  auto io = std::make_unique<boost::asio::io_context>();
  PicoHttpApiRequestHandler handler(
      {std::make_shared<Provider>(Answering(MethodResult{})), *io, log_});
  handler.Handle(Head(kJson), kCall, ResponseSink(connection_));
  EXPECT_FALSE(connection_->abandoned);
  io.reset();
  EXPECT_TRUE(connection_->abandoned);
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
