#include "daemon/endpoint.h"

#include <netdb.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "apps/lifecycle/orbi/include/verify.h"
#include "configuration/messages/translations.h"
#include "daemon/stop_deadline.h"
#include "lifecycle/task_schedular.h"
#include "tesselibs/descriptor_limit.h"
#include "tesselibs/feature_state.h"
#include "tesselibs/log.h"
#include "tesselibs/preference.h"
#include "tesselibs/service_notify.h"
#include "tesselibs/signals_blocked.h"
#include "transport/api/api_request_handler.h"

namespace Host::Settings::SettingsApi {
namespace {

constexpr const char* kServiceName = "kestreld";

/// The five seconds that a running task has to end, and a little to record that it was aborted.
constexpr std::chrono::milliseconds kStopTime{5500};

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList FindService() {
  addrinfo hints = {};
  hints.ai_flags = AI_ADDRCONFIG;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int code = getaddrinfo(nullptr, kServiceName, &hints, &found);
  if (code != 0) {
    const bool system = code == EAI_SYSTEM;
    const int error = errno;
    Log_Level(LogLevel::kCritical, "getaddrinfo failed. Error: %s%s%s\n", gai_strerror(code),
              system ? " system error: " : "", system ? strerror(error) : "");
    found = nullptr;
  }
  return {found, &freeaddrinfo};
}

/// The port of the services database in host byte order, 0 when there is none. An IPv6 entry goes
/// before others: both listeners use its port.
int LookUpPort() {
  const AddressList list = FindService();
  if (!list) return 0;
  const addrinfo* chosen = list.get();
  for (const addrinfo* entry = list.get(); entry; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET6) {
      chosen = entry;
      break;
    }
  }
  // The port stands at the same place in both families' addresses.
  sockaddr_in address = {};
  std::memcpy(&address, chosen->ai_addr, std::min<std::size_t>(sizeof address, chosen->ai_addrlen));
  return ntohs(address.sin_port);
}

/// The account of the TLS front; none when the host does not know it.
std::optional<uid_t> FrontAccount() {
  const std::string name = Preference_GetString("front_account", "www-data");
  passwd entry = {};
  passwd* found = nullptr;
  std::array<char, 4096> texts;
  if (getpwnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found) != 0 || !found)
    return std::nullopt;
  return found->pw_uid;
}

/// What the process may have open but for what it needs besides connections: files, pipes of
/// helpers, the libraries of PAM.
std::size_t MostConnections() {
  constexpr std::size_t kOthers = 256;
  const std::size_t limit = DescriptorLimit_Raise();
  return limit - std::min(limit / 2, kOthers);
}

/// What comes out of a step here, such as a failed allocation, has ended the connection that it was
/// a step of.
void CarryConnections(boost::asio::io_context& io) {
  while (!io.stopped()) {
    try {
      io.run();
    } catch (const std::exception& error) {
      Log_Level(LogLevel::kError, "[%s]: Connection given up: %s\n", "Endpoint", error.what());
    }
  }
}

Orbi::Transport::PicoHttp::ServerConfig MakeServerConfig(int port) {
  Orbi::Transport::PicoHttp::ServerConfig config;
  config.port = port;
  config.serverSpec.readTimeout = std::chrono::minutes(20);
  config.serverSpec.writeTimeout = std::chrono::minutes(30);
  config.serverSpec.httpBodySizeLimitInBytes = 2'500'000;
  config.serverSpec.front = FrontAccount();
  config.serverSpec.allowedOrigin = Preference_GetString("console_origin", "");
  config.serverSpec.mostConnections = MostConnections();
  return config;
}

}  // namespace

Endpoint::Endpoint(Orbi::Core::AsyncApiProviderPtr provider, boost::asio::io_context& io,
                   CallThreads& threads, std::shared_ptr<OrbiLoggerWrapper> logger)
    : port_(LookUpPort()),
      logger_(std::move(logger)),
      handler_({std::move(provider), io, logger_, LifeCycle::GetAnswerLocalizer()}),
      server_(io, MakeServerConfig(port_), handler_, logger_),
      io_(io),
      threads_(threads) {
  Verify(port_ != 0, "apps/lifecycle/orbi/orbicpp/endpoint", 107);
}

Endpoint::~Endpoint() { Stop(); }

void Endpoint::Start() {
  // A daemon that no family lets listen stays up: its tasks go on, and the port may become free.
  (void)server_.Listen([this](const std::string& families) { TellListening(families); });
  if (ioThread_.joinable()) std::terminate();
  // The first request may bring a task: it must find a scheduler that takes it.
  std::promise<void> ready;
  const SignalsBlocked blocked;
  ioThread_ = std::thread([&io = io_, begin = ready.get_future()] {
    begin.wait();
    CarryConnections(io);
  });
  if (FeatureState_IsEnabled(Feature::kTaskScheduler))
    (void)LifeCycle::TaskSchedular::Instance().initialise();
  TellListening(server_.Listening());
  ready.set_value();
}

void Endpoint::TellListening(const std::string& families) {
  const bool listenedBefore = std::exchange(listens_, !families.empty());
  if (!listens_) {
    Log_Level(
        LogLevel::kCritical,
        "HTTP endpoint not listening on TCP port %d: neither IPv4 nor IPv6 can, both are tried "
        "again every 5 seconds\n",
        port_);
    ServiceNotify_Tell("STATUS=Cannot listen on TCP port " + std::to_string(port_) +
                       "; trying again every 5 seconds");
    return;
  }
  if (!listenedBefore)
    Log_Level(LogLevel::kNotice, "HTTP endpoint listening on TCP port %d\n", port_);
  ServiceNotify_Tell("READY=1\nSTATUS=Listening on TCP port " + std::to_string(port_) + " (" +
                     families + ")");
}

void Endpoint::Stop() {
  io_.stop();
  if (!ioThread_.joinable()) return;
  ServiceNotify_Tell("STOPPING=1");
  const StopDeadline deadline(kStopTime);
  ioThread_.join();
  CallThreads::HurryUp();
  if (FeatureState_IsEnabled(Feature::kTaskScheduler)) LifeCycle::TaskSchedular::Instance().abort();
  threads_.Stop();
}

}  // namespace Host::Settings::SettingsApi
