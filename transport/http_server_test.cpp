#include "transport/http_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <unistd.h>

#include <list>

#include "transport/testing/loopback.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using namespace std::literals;
using testing::AnyOf;
using testing::EndsWith;

class PieceSource : public BodySource {
 public:
  explicit PieceSource(std::list<std::string> pieces) : pieces_(std::move(pieces)) {}
  void Next(std::string& piece) override {
    if (pieces_.empty()) return;
    if (pieces_.front() == "throw") throw std::runtime_error("cannot be serialized");
    piece = std::move(pieces_.front());
    pieces_.pop_front();
  }

 private:
  std::list<std::string> pieces_;
};

/// Answers with what it understood: "METHOD PATH BODY". Some paths ask for other things.
class EchoHandler : public RequestHandler {
 public:
  std::shared_ptr<AcceptedRequest> Accept(const RequestHead& head, Core::Peer) override {
    if (head.Find("x-refuse")) return nullptr;
    return std::make_shared<Request>(*this, head);
  }

  std::list<ResponseSink> kept;
  std::vector<std::string> sent;  ///< how the sending of each answer ended

 private:
  struct Request : AcceptedRequest {
    Request(EchoHandler& owner, const RequestHead& head) : owner(owner), head(head) {}
    void Handle(std::string body, ResponseSink sink) override {
      owner.Handle(head, body, std::move(sink));
    }
    EchoHandler& owner;
    const RequestHead& head;
  };

  void Handle(const RequestHead& head, const std::string& body, ResponseSink sink) {
    const auto& path = head.path;
    if (path == "/drop") return;
    if (path == "/keep") return kept.push_back(std::move(sink));
    if (path == "/throw") throw std::runtime_error("handler failed");
    Response response{.headers = {{":status", "200"},
                                  {":reason", "OK"},
                                  {"Connection", path == "/close" ? "close" : "Keep-Alive"}},
                      .body = std::string(head.method) + ' ' + std::string(path) + ' ' + body};
    if (path == "/big") response.body = std::string(32 << 20, 'x');
    if (path == "/stream")
      response.body =
          std::make_unique<PieceSource>(std::list{"first"s, std::string(16384 + 171, 'p')});
    if (path == "/broken") response.body = std::make_unique<PieceSource>(std::list{"a"s, "throw"s});
    response.sent = [this](const auto& ec) { sent.push_back(ec.message()); };
    sink(std::move(response));
  }
};

std::string Answer(std::string_view head, std::string_view body) {
  return "HTTP/1.1 " + std::string(head) + "Server: Orbi-PicoHttp\r\n\r\n" + std::string(body);
}

std::string Ok(std::string_view body, std::string_view connection = "Keep-Alive") {
  return Answer("200 OK\r\nContent-Length: " + std::to_string(body.size()) +
                    "\r\nConnection: " + std::string(connection) + "\r\n",
                body);
}

std::string Bad(std::string_view text) {
  return Answer("400 Bad Request\r\nContent-Length: " + std::to_string(text.size()) +
                    "\r\nContent-Type: text/plain\r\nConnection: close\r\n",
                text);
}

/// A head of exactly `length` bytes.
std::string HeadOf(std::size_t length) {
  const std::string start = "GET /long HTTP/1.1\r\nfiller: ";
  return start + std::string(length - start.size() - 4, 'f') + "\r\n\r\n";
}

std::string HeadWith(int headers) {
  std::string head = "GET /many HTTP/1.1\r\n";
  for (int i = 0; i < headers; ++i) head += "n" + std::to_string(i) + ": v\r\n";
  return head + "\r\n";
}

std::string Post(std::string_view headers, std::string_view body) {
  return "POST /p HTTP/1.1\r\n" + std::string(headers) + "\r\n" + std::string(body);
}

std::size_t MemoryInUse() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

const std::string kForeign =
    Bad("invalid request: web pages may not call this service, except those of the origin that the "
        "preference console_origin names");
constexpr auto kChunked = "Transfer-Encoding: chunked\r\n"sv;
const std::string kNext = "GET /next HTTP/1.1\r\n\r\n";
const std::string kNextOk = Ok("GET /next ");
constexpr std::size_t kBodyLimit = 20000;

struct Conversation {
  const char* name;
  std::string sent;      ///< followed by kNext and the end of the stream
  std::string received;  ///< up to the end of the stream
};

const Conversation kConversations[] = {
    // Framing.
    {"body by length", Post("Content-Length: 5\r\n", "hello"), Ok("POST /p hello") + kNextOk},
    {"bytes announced by a GET are the next request",
     "GET /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n", Ok("GET /a ") + kNextOk},
    {"they are another client's when a proxy has passed on the GET",
     "GET /a HTTP/1.1\r\nVia: 1.1 p\r\nContent-Length: 10\r\n\r\n", Ok("GET /a ")},
    {"nor are they a request behind a HEAD or OPTIONS",
     "OPTIONS /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n", Ok("OPTIONS /a ")},
    {"they are no request", "GET /a HTTP/1.1\r\nContent-Length: 4\r\n\r\n{\r\n",
     Ok("GET /a ") + Bad("headers parse error")},
    {"DELETE keeps the body it announces",
     "DELETE /d HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789",
     Ok("DELETE /d 0123456789") + kNextOk},
    {"DELETE without a length", "delete /d HTTP/1.1\r\n\r\n", Ok("delete /d ") + kNextOk},
    {"HEAD is answered by a head", "HEAD /h HTTP/1.1\r\n\r\n",
     Answer("200 OK\r\nContent-Length: 8\r\nConnection: Keep-Alive\r\n", "") + kNextOk},
    {"one empty line before a request", "\r\n" + Post("", ""), Ok("POST /p ") + kNextOk},
    {"chunked wins over a length; extensions, trailers, upper-case sizes",
     Post("Content-Length: 3\r\nTransfer-Encoding: gzip, Chunked\r\n",
          "A;name=\"value\"\r\n0123456789\r\n005 \r\nabcde\r\n0;x\r\nt: 1\r\n\r\n"),
     Ok("POST /p 0123456789abcde")},
    {"empty chunked body", Post(kChunked, "0\r\n\r\n"), Ok("POST /p ") + kNextOk},
    {"body of the limit", Post("Content-Length: 20000\r\n", std::string(kBodyLimit, 'b')),
     Ok("POST /p " + std::string(kBodyLimit, 'b')) + kNextOk},
    {"same length twice", Post("Content-Length: 1\r\nContent-Length: 1\r\n", "x"),
     Ok("POST /p x") + kNextOk},
    {"head of 4096 bytes", HeadOf(4096), Ok("GET /long ") + kNextOk},
    {"64 headers", HeadWith(64), Ok("GET /many ") + kNextOk},
    {"streamed answer in chunks", "GET /stream HTTP/1.1\r\n\r\n",
     Answer("200 OK\r\nTransfer-Encoding: chunked\r\nConnection: Keep-Alive\r\n",
            "5\r\nfirst\r\n4000\r\n" + std::string(16384, 'p') + "\r\nab\r\n" +
                std::string(171, 'p') + "\r\n0\r\n\r\n") +
         kNextOk},
    // Refusals.
    {"head of 4097 bytes", HeadOf(4097), Bad("http headers too long")},
    {"65 headers", HeadWith(65), Bad("headers parse error")},
    {"no version", "GET /\r\n\r\n", Bad("headers parse error")},
    {"folded header", Post("a: b\r\n c\r\n", ""), Bad("headers parse error")},
    {"blank before the colon", Post("a : b\r\n", ""), Bad("headers parse error")},
    {"zero byte in a value", Post("a: b\0c\r\n"s, ""), Bad("headers parse error")},
    {"two lengths", Post("Content-Length: 1\r\nContent-Length: 2\r\n", "xx"),
     Bad("invalid request")},
    {"length with a rest", Post("Content-Length: 1x\r\n", "x"), Bad("invalid request")},
    {"signed length", Post("Content-Length: -1\r\n", "x"), Bad("invalid request")},
    {"plus sign", Post("Content-Length: +1\r\n", "x"), Bad("invalid request")},
    {"empty length", Post("Content-Length:\r\n", "x"), Bad("invalid request")},
    {"length out of range", Post("Content-Length: 18446744073709551616\r\n", ""),
     Bad("message too long")},
    {"announced body over the limit is not asked for",
     Post("Content-Length: 20001\r\nExpect: 100-continue\r\n", ""), Bad("message too long")},
    {"coding that does not end in chunks", Post("Transfer-Encoding: chunked, gzip\r\n", "x"),
     Bad("invalid request")},
    {"coding that only looks like chunked", Post("Transfer-Encoding: xchunked\r\n", "x"),
     Bad("invalid request")},
    {"chunked body over the limit",
     Post(kChunked, "4e20\r\n" + std::string(kBodyLimit, 'b') + "\r\n1\r\nb\r\n0\r\n\r\n"),
     Bad("message too long")},
    {"chunk size overflows", Post(kChunked, "10000000000000001\r\nx\r\n0\r\n\r\n"),
     Bad("chunk parse error")},
    {"chunk size missing", Post(kChunked, "\r\nx"), Bad("chunk parse error")},
    {"chunk longer than its size", Post(kChunked, "1\r\nxy\r\n0\r\n\r\n"),
     Bad("chunk parse error")},
    {"endless trailers", Post(kChunked, "0\r\n" + std::string(5000, 't')),
     Bad("chunk parse error")},
    {"unacceptable to the handler", Post("x-refuse: 1\r\nContent-Length: 3\r\n", "abc"),
     Bad("invalid request: no Content-Type or method that is supported here")},
    {"framed content", Post("Content-Type: application/vnd.tessel.orbi.framed\r\n", ""),
     Bad("invalid request: framed and streamed content types are not supported")},
    {"page of another origin", Post("Origin: https://console.example.org\r\n", ""), kForeign},
    {"page without an origin", Post("Origin: null\r\n", ""), kForeign},
    {"page of another site that sends no origin", Post("Sec-Fetch-Site: cross-site\r\n", ""),
     kForeign},
    {"two origins",
     Post("Origin: https://console.example\r\nOrigin: https://other.example\r\n", ""), kForeign},
    {"page of the console",
     Post("Origin: https://console.example\r\nSec-Fetch-Site: same-site\r\n", ""),
     Ok("POST /p ") + kNextOk},
    {"user's own request", Post("Sec-Fetch-Site: none\r\n", ""), Ok("POST /p ") + kNextOk},
    {"body breaks off", Post("Content-Length: 500\r\n", "abc"), ""},
    // Keeping the connection, and expectations.
    {"client asks to close",
     "GET /a HTTP/1.1\r\nConnection: Close\r\nConnection: Keep-Alive\r\n\r\n", Ok("GET /a ")},
    {"server closes", "GET /close HTTP/1.1\r\n\r\n", Ok("GET /close ", "close")},
    {"old client", "GET /a HTTP/1.0\r\n\r\n", Ok("GET /a ")},
    {"old client that keeps", "GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\n",
     Ok("GET /a ") + kNextOk},
    {"old client gets no chunks", "GET /stream HTTP/1.0\r\nConnection: keep-alive\r\n\r\n",
     Answer("200 OK\r\nConnection: Keep-Alive\r\n", "first" + std::string(16555, 'p'))},
    {"100-continue of any case", Post("Expect: 100-Continue\r\nContent-Length: 2\r\n", "ab"),
     "HTTP/1.1 100 Continue\r\n\r\n" + Ok("POST /p ab") + kNextOk},
    {"100-continue, chunked",
     Post("Expect: 100-continue\r\n" + std::string(kChunked), "2\r\nab\r\n0\r\n\r\n"),
     "HTTP/1.1 100 Continue\r\n\r\n" + Ok("POST /p ab") + kNextOk},
    {"old client with chunks",
     "POST /p HTTP/1.0\r\nConnection: keep-alive\r\n" + std::string(kChunked) +
         "\r\n2\r\nab\r\n0\r\n\r\n",
     Ok("POST /p ab")},
    {"old client expects nothing",
     "POST /p HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\nab", Ok("POST /p ab")},
    {"nothing to continue", Post("Expect: 100-continue\r\n", ""), Ok("POST /p ") + kNextOk},
    {"other expectations", Post("Expect: foo\r\nContent-Length: 2\r\n", "ab"),
     "HTTP/1.1 417 Expectation Failed\r\nConnection: close\r\nContent-Length: 0\r\n\0"s},
};

TEST(HttpServer, AConversationIsTheSameWhateverThePacketBoundaries) {
  EchoHandler handler;
  const LoopbackServer server(handler, {.httpBodySizeLimitInBytes = kBodyLimit,
                                        .allowedOrigin = "https://console.example"});
  for (const auto& [name, sent, received] : kConversations) {
    for (const std::size_t step : {std::string::npos, std::size_t{1}, std::size_t{7}}) {
      Client client(server);
      client.Send(sent + kNext, step).FinishSending();
      EXPECT_EQ(client.ReadToEnd(), received) << name << " in steps of " << step;
    }
  }
}

TEST(HttpServer, AnAnswerDoesNotWaitLongForWhatIsNotRead) {
  EchoHandler handler;
  const LoopbackServer server(handler);
  const std::string head = "GET /a HTTP/1.1\r\nContent-Length: 40\r\n\r\n";
  for (const auto& part : {""s, "GET /next HT"s, Post("Content-Length: 3\r\n", "ab"),
                           Post("Content-Length: 3\r\nExpect: 100-continue\r\n", "")})
    EXPECT_EQ(Client(server).Send(head + part).ReadToEnd(), Ok("GET /a ", "close")) << part;
}

TEST(HttpServer, ThousandsOfRequestsInOneWriteDoNotUseUpTheStack) {
  constexpr int kCount = 20000;
  EchoHandler handler;
  const LoopbackServer server(handler);
  Client client(server);
  std::thread sender([&client] {
    std::string all;
    for (int i = 0; i < kCount; ++i) all += kNext;
    client.Send(all).FinishSending();
  });
  EXPECT_EQ(client.ReadToEnd().size(), kCount * kNextOk.size());
  sender.join();
}

TEST(HttpServer, AnswersAreNotLostToAResetWhileTheClientStillSends) {
  EchoHandler handler;
  const LoopbackServer server(handler);
  Client client(server);
  client.Send(Post("Content-Length: 2500001\r\n", std::string(50000, 'b')));
  EXPECT_EQ(client.ReadToEnd(), Bad("message too long"));
  // But a client that goes on sending does not hold the connection.
  const std::string endless(64 << 20, 'b');
  EXPECT_LT(client.TrySend(endless), endless.size());
}

TEST(HttpServer, BrokenRequestsCostOnlyTheirOwnConnection) {
  EchoHandler handler;
  LoopbackServer server(handler);
  Client bystander(server);
  for (const auto* path : {"/drop", "/throw"})
    EXPECT_EQ(Client(server).Send("GET "s + path + " HTTP/1.1\r\n\r\n").ReadToEnd(), "") << path;

  Client leaver(server);
  leaver.Send("GET /big HTTP/1.1\r\n\r\n");
  EXPECT_EQ(leaver.Read(8), "HTTP/1.1");
  leaver.Reset();
  EXPECT_TRUE(server.Logger().WaitFor("orbi.send.failed: Failed to sent response body"));

  EXPECT_THAT(Client(server).Send("GET /broken HTTP/1.1\r\n\r\n").ReadToEnd(),
              EndsWith("\r\n1\r\na\r\n"));

  bystander.Send(kNext).FinishSending();
  EXPECT_EQ(bystander.ReadToEnd(), kNextOk);
  server.Do([&] {
    ASSERT_EQ(handler.sent.size(), 3);
    EXPECT_THAT(handler.sent[0], AnyOf("Connection reset by peer", "Broken pipe"));
    EXPECT_EQ(handler.sent[1], "incomplete body");
    EXPECT_EQ(handler.sent[2], "Success");
  });
}

TEST(HttpServer, AnIdleConnectionDoesNotHoldWhatPassedThroughIt) {
  EchoHandler handler;
  LoopbackServer server(handler);
  const auto before = MemoryInUse();
  Client client(server);
  (void)client.Send("GET /big HTTP/1.1\r\n\r\n").Read(32 << 20);
  EXPECT_TRUE(server.Logger().WaitFor("Response head sent: 200 OK"));
  server.Do([] {});  // the step that logs this has ended
  EXPECT_LT(MemoryInUse(), before + (16 << 20));
}

TEST(HttpServer, SilenceEndsAConnectionButAHandlerMayTakeItsTime) {
  EchoHandler handler;
  LoopbackServer server(handler, {.readTimeout = 50ms, .writeTimeout = 50ms});
  Client waiting(server);
  waiting.Send("GET /keep HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(server.Logger().WaitFor("Request head: GET /keep HTTP/1.1"));

  EXPECT_EQ(Client(server).Send("GET /half").ReadToEnd(), "");
  EXPECT_EQ(Client(server).Send(Post("Content-Length: 9\r\n", "half")).ReadToEnd(), "");
  EXPECT_TRUE(server.Logger().WaitFor("RequestReadCb: orbi.recv.failed: system:110"));

  Client deaf(server.Endpoint(), 4096);
  deaf.Send("GET /big HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(server.Logger().WaitFor("ResponseSentCb: orbi.send.failed"));

  // By now all time-outs of the first connection would have passed, if they ran while its request
  // is handled.
  server.Do([&handler] {
    handler.kept.front()({.headers = {{":status", "200"}, {":reason", "OK"}}, .body = "late"});
    handler.kept.clear();
  });
  const auto late = Answer("200 OK\r\nContent-Length: 4\r\n", "late");
  EXPECT_EQ(waiting.Read(late.size()), late);
}

const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

/// A request with a body of the limit, of a client behind the front.
std::string LongRequest(std::string_view client) {
  return Post("Expect: 100-continue\r\nX-Forwarded-For: " + std::string(client) +
                  "\r\nContent-Length: " + std::to_string(kBodyLimit) + "\r\n",
              "");
}

TEST(HttpServer, BodiesWithoutRoomWaitInTurn) {
  const std::string body(kBodyLimit, 'b');
  const std::string answer = Ok("POST /p " + body);
  EchoHandler handler;
  LoopbackServer server(handler,
                        {.httpBodySizeLimitInBytes = kBodyLimit,
                         .bodyMemory = {.total = 3 * kBodyLimit, .ofParty = 2 * kBodyLimit},
                         .front = ::getuid()});
  const auto reads = [](Client& client) { return client.Read(kContinue.size()) == kContinue; };
  Client first(server), second(server), third(server), other(server), last(server), small(server);
  for (Client* client : {&first, &second, &third}) client->Send(LongRequest("192.0.2.1"));
  other.Send(LongRequest("192.0.2.2"));
  EXPECT_TRUE(reads(first) && reads(second) && reads(other));
  last.Send(LongRequest("192.0.2.3"));
  EXPECT_EQ(small.Send(Post("Content-Length: 1000\r\n", body.substr(0, 1000))).Read(26),
            Ok("POST /p " + body.substr(0, 1000)).substr(0, 26));
  other.Send(body);
  EXPECT_EQ(other.Read(answer.size()), answer);
  EXPECT_TRUE(reads(last));
  second.Reset();
  EXPECT_TRUE(reads(third));
  for (Client* client : {&first, &third, &last})
    EXPECT_EQ(client->Send(body).Read(answer.size()), answer);
}

TEST(HttpServer, ABodyThatDoesNotArriveKeepsNobodyWaiting) {
  EchoHandler handler;
  LoopbackServer server(
      handler,
      {.httpBodySizeLimitInBytes = kBodyLimit,
       .bodyMemory = {
           .total = kBodyLimit, .ofParty = kBodyLimit, .leastArrival = 1, .period = 20ms}});
  Client silent(server), waiting(server);
  EXPECT_EQ(silent.Send(LongRequest("")).Read(kContinue.size()), kContinue);
  EXPECT_EQ(waiting.Send(LongRequest("")).Read(kContinue.size()), kContinue);
  EXPECT_EQ(silent.ReadToEnd(), "");
}

TEST(HttpServer, AConnectionWithoutAWholeRequestMakesRoomForANewOne) {
  EchoHandler handler;
  for (const bool isFront : {false, true}) {
    // A quarter of them is one party's, but the front has them all.
    LoopbackServer server(handler, {.mostConnections = isFront ? 2U : 8U,
                                    .front = isFront ? std::optional(::getuid()) : std::nullopt});
    Client busy(server);
    busy.Send("GET /keep HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(server.Logger().WaitFor("Request head: GET /keep"));
    Client idle(server);
    EXPECT_EQ(idle.Send(kNext).Read(kNextOk.size()), kNextOk);
    idle.Send("G");
    Client fresh(server);
    EXPECT_EQ(fresh.Send("GET /a HTTP/1.1\r\n\r\n").Read(8), "HTTP/1.1");
    EXPECT_EQ(idle.ReadToEnd(), "");
    fresh.Send(Post("Content-Length: 9\r\nslow: 1\r\n", "x"));
    EXPECT_TRUE(server.Logger().WaitFor("slow: 1"));
    Client last(server);
    EXPECT_THAT(fresh.ReadToEnd(), EndsWith("GET /a "));
    last.Send("GET /keep HTTP/1.1\r\nanother: 1\r\n\r\n");
    EXPECT_TRUE(server.Logger().WaitFor("another: 1"));
    EXPECT_EQ(Client(server).ReadToEnd(), "");
    server.Do([&handler] { handler.kept.clear(); });
    EXPECT_EQ(Client(server).Send(kNext).Read(kNextOk.size()), kNextOk);
  }
}

TEST(HttpServer, CredentialsStayOutOfTheLog) {
  EchoHandler handler;
  LoopbackServer server(handler);
  Client(server).Send("GET /a HTTP/1.1\r\nAuthorization: Basic c2Vj\r\nHost: h\r\n\r\n").Read(1);
  EXPECT_TRUE(
      server.Logger().WaitFor("Request head: GET /a HTTP/1.1; authorization: ***; host: h"));
}

TEST(HttpServer, RunningOutOfDescriptorsOnlyDelaysNewConnections) {
  EchoHandler handler;
  LoopbackServer server(handler);
  Client old(server);
  EXPECT_EQ(old.Send(kNext).Read(kNextOk.size()), kNextOk);

  // The client's socket takes the lowest free descriptor, and there is no other for the server's
  // end.
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{static_cast<rlim_t>(lowestFree) + 1, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  Client fresh(server);
  const bool delayed = server.Logger().WaitFor(";DelayAcceptError");
  const auto meanwhile = old.Send(kNext).Read(kNextOk.size());
  ::setrlimit(RLIMIT_NOFILE, &before);

  EXPECT_TRUE(delayed) << server.Logger().Text();
  EXPECT_EQ(meanwhile, kNextOk);
  EXPECT_EQ(fresh.Send(kNext).Read(kNextOk.size()), kNextOk);
}

TEST(HttpServer, AListenerThatFailsLeavesOpenConnectionsAlone) {
  EchoHandler handler;
  LoopbackServer server(handler);
  Client old(server);
  EXPECT_EQ(old.Send(kNext).Read(kNextOk.size()), kNextOk);
  for (int fd = 3; fd < 256; ++fd) {
    int listening = 0;
    socklen_t size = sizeof listening;
    sockaddr_in address{};
    socklen_t addressSize = sizeof address;
    if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressSize) == 0 &&
        address.sin_family == AF_INET && ntohs(address.sin_port) == server.Endpoint().port())
      ::shutdown(fd, SHUT_RD);  // fails the accept that is pending on it
  }
  EXPECT_TRUE(server.Logger().WaitFor(";TerminalAcceptError"));
  EXPECT_EQ(old.Send(kNext).Read(kNextOk.size()), kNextOk);
  EXPECT_THROW(Client{server}, std::runtime_error);
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
