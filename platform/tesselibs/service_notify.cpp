#include "tesselibs/service_notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "tesselibs/unique_fd.h"

namespace {

constexpr const char* kVariable = "NOTIFY_SOCKET";

// Written at start-up, only read afterwards.
sockaddr_un address{};
socklen_t addressSize = 0;  ///< 0 when nobody listens

}  // namespace

void ServiceNotify_Init() {
  const char* const value = std::getenv(kVariable);
  if (!value) return;
  const std::string_view name(value);
  const bool isSocket = name.starts_with('/') || name.starts_with('@');
  if (isSocket && name.size() < sizeof address.sun_path) {
    address.sun_family = AF_UNIX;
    std::ranges::copy(name, address.sun_path);
    // An abstract name begins with a zero byte, and has no other at its end.
    if (name.front() == '@') address.sun_path[0] = '\0';
    addressSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  }
  unsetenv(kVariable);
}

void ServiceNotify_Tell(std::string_view lines) {
  if (addressSize == 0) return;
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return;
  (void)sendto(socket.Get(), lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address), addressSize);
}
