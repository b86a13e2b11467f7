#include "transport/api/api_request_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <future>
#include <stdexcept>

#include "orbi/std/errors.h"
#include "transport/testing/loopback.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using Core::MethodCompletion;
using Core::MethodResult;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace Errors = Com::Tessel::Orbi::Std::Errors;

/// Answers every call by a function.
class Provider : public Core::AsyncApiProvider {
 public:
  using Function = std::function<void(const Core::MethodIdentifier&, Data::Value,
                                      Core::ExecutionContextPtr, MethodCompletion)>;
  explicit Provider(Function function) : function_(std::move(function)) {}

  void Invoke(const Core::MethodIdentifier& method, Data::Value input,
              Core::ExecutionContextPtr context, MethodCompletion completion) override {
    function_(method, std::move(input), std::move(context), std::move(completion));
  }

 private:
  const Function function_;
};

Provider::Function Answering(const MethodResult& result) {
  return [result](const auto&, auto, auto, MethodCompletion completion) { completion(result); };
}
Provider::Function Answering(Data::Value output) {
  return Answering(MethodResult::Output(std::move(output)));
}

const std::string kJson = "Content-Type: application/json\r\n";
const std::string kAcceptStream = "Accept: application/vnd.tessel.orbi.clean.stream.json\r\n";
const std::string kCall =
    R"({"jsonrpc":"2.0","id":1,"method":"invoke","params":{"serviceId":"s","operationId":"o"}})";
const std::string kInternalError = R"({"jsonrpc":"2.0","id":1,"result":{"error":{"ERROR":{)"
                                   R"("com.tessel.orbi.std.errors.internal_server_error":{}}}}})";

std::string Post(const std::string& headers, const std::string& body) {
  return "POST /api HTTP/1.1\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

/// The handler behind a real server, in front of a function.
class ApiServer {
 public:
  explicit ApiServer(Provider::Function function)
      : handler_({std::make_shared<Provider>(std::move(function)), *io_, log}) {}

  auto Endpoint() const { return server_.Endpoint(); }

  /// What is sent back on a connection of its own.
  std::string Exchange(const std::string& headers = kJson, const std::string& body = kCall) {
    return Client(Endpoint()).Send(Post(headers + "Connection: close\r\n", body)).ReadToEnd();
  }
  const std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();

 private:
  const std::shared_ptr<boost::asio::io_context> io_ = std::make_shared<boost::asio::io_context>();
  PicoHttpApiRequestHandler handler_;
  LoopbackServer server_{handler_, {}, io_, log};
};

TEST(ApiRequestHandler, AnswersInTheFormatThatIsAskedFor) {
  const std::string json = "application/json", orbi = "application/vnd.tessel.orbi.";
  const std::string clean = orbi + "cleanjson", stream = orbi + "stream.json",
                    cleanStream = orbi + "clean.stream.json";
  const struct {
    std::string contentType, accept;
    std::string answer;  ///< the type of the answer, empty for a refusal
  } cases[] = {
      {json + "; charset=utf-8", "", json},
      {json, "*/*", json},
      {json, clean + ", application/json", clean},
      {json, orbi + "framed", json},
      {json, orbi + "cframed.cleanjson", json},
      {json, stream, stream},
      {json, "application/json;q=1, " + cleanStream, cleanStream},
      {clean, "", ""},
      {json + ", " + clean, "", ""},
      {"text/json", "", ""},
      {"text/plain; x=application/json", "", ""},
      {"", json, ""},
  };
  ApiServer server(Answering(Data::Secret{"x"}));
  for (const auto& c : cases) {
    const std::string answer =
        server.Exchange("Content-Type: " + c.contentType + "\r\nAccept: " + c.accept + "\r\n");
    if (c.answer.empty()) {
      EXPECT_THAT(answer, StartsWith("HTTP/1.1 400 Bad Request\r\n")) << c.contentType;
      continue;
    }
    EXPECT_THAT(
        answer,
        AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), HasSubstr("Content-Type: " + c.answer + "\r\n"),
              HasSubstr(c.answer.find("clean") != answer.npos ? R"("output":"")"
                                                              : R"({"SECRET":""})")));
    EXPECT_EQ(answer.find("Transfer-Encoding: chunked") != answer.npos,
              c.answer.find("stream") != answer.npos)
        << c.accept;
  }
}

TEST(ApiRequestHandler, CallsComeWithTheApisMethodsOnly) {
  ApiServer server(Answering(Data::Value("text")));
  const auto exchange = [&server](const std::string& method) {
    return Client(server.Endpoint())
        .Send(method + " /api HTTP/1.1\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n" +
              kJson + "\r\n57\r\n" + kCall + "\r\n0\r\n\r\n")
        .ReadToEnd();
  };
  ASSERT_EQ(kCall.size(), 0x57);
  for (const char* method : {"POST", "DELETE", "Post"})
    EXPECT_THAT(exchange(method), EndsWith(R"("result":{"output":"text"}})")) << method;
  for (const char* method : {"GET", "OPTIONS"})
    EXPECT_THAT(exchange(method), HasSubstr(R"("id":null,"error":{"code":-32700)")) << method;
  EXPECT_THAT(exchange("HEAD"), AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), EndsWith("\r\n\r\n")));
  for (const char* word : {"helloPOST", "POSTS", "GARBAGE", "PUT", "TRACE", "CONNECT"})
    EXPECT_THAT(exchange(word), StartsWith("HTTP/1.1 400 Bad Request\r\n")) << word;
}

TEST(ApiRequestHandler, ResultIsAnsweredAndLogged) {
  ApiServer server(Answering(Data::Value("text")));
  EXPECT_EQ(server.Exchange(),
            "HTTP/1.1 200 OK\r\nContent-Length: 51\r\nContent-Type: application/json\r\n"
            "Connection: close\r\nServer: Orbi-PicoHttp\r\n\r\n"
            R"({"jsonrpc":"2.0","id":1,"result":{"output":"text"}})");
  for (const char* line : {"Request received[0x", "Response head sent: 200", "Request handled[0x"})
    EXPECT_TRUE(server.log->WaitFor(line));
}

TEST(ApiRequestHandler, CallCarriesWhatHeadersAndPayloadSay) {
  ApiServer server([](const Core::MethodIdentifier& method, Data::Value input,
                      const Core::ExecutionContextPtr& context, MethodCompletion completion) {
    EXPECT_EQ(method.ToText(), "s.o");
    EXPECT_EQ(context->localization.language, "en_GB");
    EXPECT_EQ(context->application.at("trace"), "t");
    EXPECT_EQ(context->security->password, "p");
    completion(MethodResult::Output(std::move(input)));
  });
  EXPECT_THAT(server.Exchange(
                  kJson + "Accept-Language: de, en-GB;q=0.5\r\nOrbi-Ctx-Format-Locale: de_DE\r\n"
                          "Orbi-Ctx-Trace: t\r\nOrbi-Service: s\r\n",
                  R"({"jsonrpc":"2.0","method":"invoke","params":{"serviceId":"s",)"
                  R"("operationId":"o","input":[1],"ctx":{"securityCtx":{"password":"p"}}}})"),
              EndsWith(R"({"jsonrpc":"2.0","id":null,"result":{"output":[1]}})"));
  EXPECT_TRUE(server.log->WaitFor("Localization error: [0x"));
}

TEST(ApiRequestHandler, ApiErrorIsNamedInTheHeadAndWordedForTheClient) {
  ApiServer server(Answering(MethodResult::Error(Errors::OperationNotFound(
      {{"orbi.provider.interface.unknown", "default", {"x"}, std::nullopt}}))));
  EXPECT_THAT(server.Exchange(),
              AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                    HasSubstr("orbi-error: com.tessel.orbi.std.errors.operation_not_found\r\n"),
                    HasSubstr(R"("localized":{"OPTIONAL":"There is no interface)")));
}

TEST(ApiRequestHandler, WhateverGoesWrongInTheProviderIsAnInternalError) {
  const Provider::Function wrong[] = {
      Answering(MethodResult{}),
      [](const auto&, auto, auto, MethodCompletion) {},
      [](const auto&, auto, auto, MethodCompletion) { throw 1; },
      [](const auto&, auto, auto, MethodCompletion) { throw std::runtime_error("out of order"); },
      Answering(Data::Value(NAN)),
  };
  for (const auto& function : wrong) {
    ApiServer server(function);
    EXPECT_THAT(server.Exchange(),
                AllOf(HasSubstr("orbi-error: com.tessel.orbi.std.errors.internal_server_error\r\n"),
                      EndsWith(kInternalError)));
  }
}

TEST(ApiRequestHandler, BodyThatIsNoCallIsAnInvalidRequestAndKeepsTheConnection) {
  ApiServer server([](const auto&, auto, auto, MethodCompletion) { FAIL(); });
  const struct {
    std::string headers, body, error;
  } cases[] = {
      {kJson, "{", R"("id":null,"error":{"code":-32700,"message":"protocol error: Missing)"},
      {kJson + "Orbi-Operation: p\r\n", kCall,
       R"("id":1,"error":{"code":-32602,"message":"Mismatching operation identifier in HTTP header and payload")"},
  };
  Client client(server.Endpoint());
  for (const auto& c : cases) {
    client.Send(Post(c.headers, c.body));
    std::string answer;
    while (answer.empty() || !answer.ends_with("}}")) answer += client.Read(1);
    EXPECT_THAT(answer,
                AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), HasSubstr("Connection: Keep-Alive\r\n"),
                      HasSubstr("orbi-error: InvalidRequest\r\n"), HasSubstr(c.error)));
  }
}

TEST(ApiRequestHandler, StreamedAnswerComesInPieces) {
  const std::string text(100'000, 'x');
  ApiServer server(Answering(Data::Value(text)));
  const std::string answer = server.Exchange(kJson + kAcceptStream);
  std::string document;
  std::size_t size = 1;
  for (auto at = answer.find("\r\n\r\n") + 4; size > 0; at += size + 2) {
    size = std::stoul(answer.substr(at, 8), nullptr, 16);
    EXPECT_LE(size, 16U * 1024);
    at = answer.find("\r\n", at) + 2;
    document += answer.substr(at, size);
  }
  EXPECT_EQ(document, R"({"jsonrpc":"2.0","id":1,"result":{"output":")" + text + "\"}}");
}

TEST(ApiRequestHandler, StreamThatCannotGoOnIsBrokenOff) {
  ApiServer server(
      Answering(Data::List{{Data::Value(std::string(20'000, 'x')), Data::Value(NAN)}}));
  EXPECT_THAT(server.Exchange(kJson + kAcceptStream),
              AllOf(HasSubstr("Transfer-Encoding: chunked"), Not(EndsWith("0\r\n\r\n"))));
  EXPECT_TRUE(server.log->WaitFor("Response head sent (Deserializer error):[0x"));
}

TEST(ApiRequestHandler, ClientThatHasGoneIsLogged) {
  std::promise<MethodCompletion> called;
  ApiServer server([&](const auto&, auto, auto, MethodCompletion completion) {
    called.set_value(std::move(completion));
  });
  Client client(server.Endpoint());
  client.Send(Post(kJson, kCall));
  MethodCompletion completion = called.get_future().get();
  client.Reset();
  completion(MethodResult::Output(Data::Value()));  // from this thread to the server's
  EXPECT_TRUE(server.log->WaitFor("Handle request error: ["));
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
