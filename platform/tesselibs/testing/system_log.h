#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>

/// For tests: a system log. A bound datagram socket, of which the kernel keeps a few datagrams.
class SystemLog {
 public:
  explicit SystemLog(std::string path) : path_(std::move(path)) { Start(); }
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  ~SystemLog() { Stop(); }

  void Start() {
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unlink(path_.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  }

  void Stop() {
    close(socket_);
    unlink(path_.c_str());
  }

  /// @return the next datagram, or an empty one when none comes for some seconds
  [[nodiscard]] std::string Receive() const {
    pollfd ready{socket_, POLLIN, 0};
    if (poll(&ready, 1, 10000) != 1) return "";
    std::string datagram(1 << 16, '\0');
    const ssize_t length = recv(socket_, datagram.data(), datagram.size(), 0);
    datagram.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return datagram;
  }

  /// @return what stands behind the next datagram's process identifier
  [[nodiscard]] std::string ReceiveText() const {
    const std::string datagram = Receive();
    return datagram.substr(datagram.find("]: ") + 3);
  }

 private:
  const std::string path_;
  int socket_ = -1;
};
