#include "tesselibs/syslog_output.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr int kWaitMilliseconds = 100;
constexpr std::chrono::seconds kConnectInterval{1};

void AppendEscaped(std::string& to, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      to.push_back(c);
      continue;
    }
    const char escaped[] = {'#', static_cast<char>('0' + (byte >> 6)),
                            static_cast<char>('0' + ((byte >> 3) & 7)),
                            static_cast<char>('0' + (byte & 7))};
    to.append(escaped, sizeof escaped);
  }
}

// RFC 3164 knows English month names only, whatever the process's locale.
std::string TimeStamp(std::time_t when) {
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm local{};
  localtime_r(&when, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%s %2d %02d:%02d:%02d", kMonths[local.tm_mon], local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

}  // namespace

SyslogOutput::SyslogOutput(std::string ident, std::string socketPath)
    : ident_(std::move(ident)), socketPath_(std::move(socketPath)) {}

SyslogOutput::~SyslogOutput() { Disconnect(); }

LogOutput::Result SyslogOutput::Write(const LogLine& line) {
  if (socket_ < 0 && !Connect()) return Result::kLost;
  Format(line);
  const Result result = Send();
  if (result != Result::kLost) return result;
  // The other end has gone; a successor may have bound the same path already.
  Disconnect();
  return Connect() ? Send() : Result::kLost;
}

bool SyslogOutput::Connect() {
  const auto now = std::chrono::steady_clock::now();
  if (now < nextConnect_) return false;

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath_.size() >= sizeof address.sun_path) return false;
  std::copy(socketPath_.begin(), socketPath_.end(), address.sun_path);

  socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket_ >= 0 &&
      connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return true;
  }
  Disconnect();
  nextConnect_ = now + kConnectInterval;
  return false;
}

void SyslogOutput::Disconnect() {
  if (socket_ >= 0) close(socket_);
  socket_ = -1;
}

void SyslogOutput::Format(const LogLine& line) {
  if (line.when != stampTime_) {
    stamp_ = TimeStamp(line.when);
    stampTime_ = line.when;
  }
  const int severity = static_cast<int>(line.level);
  datagram_ = '<' + std::to_string(LOG_DAEMON | severity) + '>';
  datagram_.append(stamp_).append(" ").append(ident_);
  datagram_.append("[").append(std::to_string(getpid())).append("]: ");
  AppendEscaped(datagram_, line.text);
}

LogOutput::Result SyslogOutput::Send() {
  while (send(socket_, datagram_.data(), datagram_.size(), MSG_NOSIGNAL) < 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != ENOBUFS) return Result::kLost;
    pollfd ready{socket_, POLLOUT, 0};
    if (poll(&ready, 1, kWaitMilliseconds) <= 0) return Result::kBusy;
  }
  return Result::kWritten;
}
