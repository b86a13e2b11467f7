// An authenticated call that does nothing else beside a bare PAM loop for the same account and
// service. Runs inside a sandboxed host in which kestreld serves.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <security/pam_appl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char* kUser = "root";
constexpr const char* kPassword = "kestrel";

int AnswerPrompts(int count, const pam_message**, pam_response** responses, void*) {
  *responses = static_cast<pam_response*>(
      std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  for (int i = 0; i < count; ++i) (*responses)[i].resp = strdup(kPassword);
  return PAM_SUCCESS;
}

void BarePam(benchmark::State& state) {
  const pam_conv conversation = {AnswerPrompts, nullptr};
  for (auto _ : state) {
    pam_handle_t* handle = nullptr;
    int code = pam_start("kestreld", kUser, &conversation, &handle);
    if (code == PAM_SUCCESS) code = pam_authenticate(handle, 0);
    if (code == PAM_SUCCESS) code = pam_acct_mgmt(handle, 0);
    if (code == PAM_SUCCESS) code = pam_setcred(handle, PAM_ESTABLISH_CRED);
    if (code != PAM_SUCCESS) state.SkipWithError(pam_strerror(handle, code));
    pam_end(handle, code);
  }
}

/// A keep-alive connection to the daemon.
class Connection {
 public:
  Connection() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = static_cast<in_port_t>(getservbyname("kestreld", "tcp")->s_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ~Connection() { close(socket_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Posts the document and returns the answer: one that fits a packet, as those measured here do.
  std::string Call(const std::string& request) {
    if (write(socket_, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
      std::abort();
    char answer[16384];
    const ssize_t got = read(socket_, answer, sizeof answer);
    return got > 0 ? std::string(answer, static_cast<std::size_t>(got)) : std::string();
  }

 private:
  int socket_;
};

void AuthenticatedCall(benchmark::State& state) {
  const std::string body =
      std::string(
          R"({"jsonrpc":"2.0","id":"1","method":"invoke","params":{"serviceId":"com.tessel.ryx.host_settings.config",)") +
      R"("operationId":"get","input":{"STRUCTURE":{"operation-input":{}}},"ctx":{"securityCtx":{"schemeId":"com.tessel.orbi.std.security.user_pass","userName":")" +
      kUser + R"(","password":")" + kPassword + R"("}}}})";
  const std::string request =
      "POST /api HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\n\r\n" + body;
  Connection connection;
  for (auto _ : state) {
    const std::string answer = connection.Call(request);
    if (answer.find("HTTP/1.1 200") != 0 || answer.find("unauthenticated") != std::string::npos) {
      state.SkipWithError("the call was refused");
    }
  }
}

BENCHMARK(BarePam)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(AuthenticatedCall)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
