#include "tesselibs/syslog_output.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kPatience{100};
constexpr std::chrono::seconds kConnectInterval{1};
constexpr std::size_t kDatagramsAtOnce = 64;
/// Formatting stops behind the datagram that passes this, so that long lines do not add up.
constexpr std::size_t kBytesAtOnce = std::size_t{64} << 10;

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

/// Looks at all characters without stopping at the first, which compilers turn into vector code.
bool HoldsControl(std::string_view text) {
  bool holds = false;
  for (const char c : text) holds |= IsControl(c);
  return holds;
}

void AppendEscaped(std::string& to, std::string_view text) {
  if (!HoldsControl(text)) {
    to.append(text);
    return;
  }
  for (const char c : text) {
    if (!IsControl(c)) {
      to.push_back(c);
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
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

bool WaitForRoom(int socket, std::chrono::steady_clock::time_point deadline) {
  using namespace std::chrono;
  const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
  pollfd ready{socket, POLLOUT, 0};
  return left.count() > 0 && poll(&ready, 1, static_cast<int>(left.count())) > 0;
}

}  // namespace

SyslogOutput::SyslogOutput(std::string ident, std::string socketPath)
    : ident_(std::move(ident)), socketPath_(std::move(socketPath)) {}

SyslogOutput::~SyslogOutput() { Disconnect(); }

LogOutput::Progress SyslogOutput::Write(std::span<const LogLine> lines) {
  if (socket_ < 0 && !Connect()) return {.lost = lines.size()};
  Format(lines);
  const Progress progress = Send();
  if (progress.lost == 0) return progress;
  // The other end has gone; a successor may have bound the same path already.
  Disconnect();
  return Connect() ? Send() : progress;
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

void SyslogOutput::StampHeads(std::time_t when) {
  if (when == stampTime_) return;
  headEnd_ = '>' + TimeStamp(when) + ' ' + ident_ + '[' + std::to_string(getpid()) + "]: ";
  for (std::size_t severity = 0; severity < heads_.size(); ++severity)
    heads_[severity] = '<' + std::to_string(kDaemonFacility | severity) + headEnd_;
  stampTime_ = when;
}

void SyslogOutput::AppendHead(const LogLine& line) {
  StampHeads(line.when);
  const auto severity = static_cast<std::size_t>(line.level) % heads_.size();
  if (line.facility == kDaemonFacility) {
    datagrams_.append(heads_[severity]);
  } else {
    datagrams_ += '<';
    datagrams_ += std::to_string(line.facility | static_cast<int>(severity));
    datagrams_.append(headEnd_);
  }
}

/// Makes datagrams of the first lines.
void SyslogOutput::Format(std::span<const LogLine> lines) {
  datagrams_.clear();
  ends_.clear();
  for (const LogLine& line : lines) {
    if (ends_.size() == kDatagramsAtOnce || datagrams_.size() >= kBytesAtOnce) return;
    AppendHead(line);
    AppendEscaped(datagrams_, line.text);
    ends_.push_back(datagrams_.size());
  }
}

/// Sends the datagrams, as many as the system log takes in time.
LogOutput::Progress SyslogOutput::Send() {
  std::array<iovec, kDatagramsAtOnce> texts;
  std::array<mmsghdr, kDatagramsAtOnce> messages{};
  std::size_t start = 0;
  for (std::size_t i = 0; i < ends_.size(); ++i) {
    texts[i] = {datagrams_.data() + start, ends_[i] - start};
    messages[i].msg_hdr.msg_iov = &texts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
    start = ends_[i];
  }

  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::size_t sent = 0;
  while (sent < ends_.size()) {
    const int count = sendmmsg(socket_, messages.data() + sent,
                               static_cast<unsigned>(ends_.size() - sent), MSG_NOSIGNAL);
    if (count > 0) {
      sent += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN || errno == ENOBUFS) {
      if (!WaitForRoom(socket_, deadline)) break;
    } else if (errno != EINTR) {
      // What was sent is told first; the failing one is the first of the next call.
      return {.written = sent, .lost = sent == 0 ? 1U : 0U};
    }
  }
  return {.written = sent};
}
