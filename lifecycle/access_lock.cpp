#include "lifecycle/access_lock.h"

#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>

#include <boost/filesystem/operations.hpp>

namespace LifeCycle {
namespace {

/// @return "/com/tessel/" and the digest of the absolute path
std::string SocketName(const std::string& path) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const std::string absolute = boost::filesystem::absolute(path).string();
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (EVP_Digest(absolute.data(), absolute.size(), digest.data(), &length, EVP_md5(), nullptr) != 1)
    throw std::bad_alloc();
  std::string name = "/com/tessel/";
  for (unsigned i = 0; i < length; ++i) {
    name += kDigits[digest[i] >> 4];
    name += kDigits[digest[i] & 0xf];
  }
  return name;
}

/// Abstract namespace: the name follows a NUL byte and vanishes with the socket. Everything up to
/// the given length belongs to the name, so that every process must give the same length.
bool BindTo(int descriptor, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::min(name.size(), sizeof address.sun_path - 1);
  std::memcpy(address.sun_path + 1, name.data(), length);
  const auto size = static_cast<socklen_t>(sizeof address.sun_family + 1 + length);
  return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

}  // namespace

AccessLockError::AccessLockError(int errorNumber)
    : errorNumber_(errorNumber), text_(std::strerror(errorNumber)) {}

AccessLock::AccessLock(const std::string& path, int retries) : name_(SocketName(path)) {
  const char* const name = name_.c_str();
  syslog(LOG_INFO, "[AccessLock]: Create lock with retry count{%d}", retries);
  int count = 0;
  do {
    try {
      Bind();
      break;
    } catch (const AccessLockError& e) {
      Close();
      syslog(LOG_INFO, "[AccessLock]: socket{%s} closed", name);
      syslog(LOG_ERR, "[AccessLock]: Acquiring lock failed on socket{%s}, count{%d/%d}: {%s}", name,
             count, retries, e.what());
      if (e.errorNumber() != EADDRINUSE || count >= retries) {
        syslog(LOG_ERR, "[AccessLock]: Giving up on acquiring lock{%s}, count{%d/%d}: {%s}", name,
               count, retries, e.what());
        throw;
      }
    }
    sleep(1);
    ++count;
    syslog(LOG_ERR,
           "[AccessLock]: Sleeping for a second and retrying to acquire lock{%s}, count{%d/%d}",
           name, count, retries);
  } while (retries > count);
  syslog(LOG_ERR, "[AccessLock]: Lock acquired on socket{%s}, count{%d/%d}", name, count, retries);
}

AccessLock::~AccessLock() noexcept(false) {  // NOLINT(bugprone-exception-escape)
  try {
    Close();
  } catch (const AccessLockError&) {
    if (std::uncaught_exceptions() == 0) throw;
  }
}

bool AccessLock::IsHeld(const std::string& path) {
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor == -1) return true;
  const bool held = !BindTo(descriptor, SocketName(path));
  close(descriptor);
  return held;
}

/// Makes the socket and binds it to the name.
void AccessLock::Bind() {
  socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_ == -1) {
    const AccessLockError error(errno);
    syslog(LOG_ERR, "[AccessLock]: Failed to create socket{%s}: {%s}", name_.c_str(), error.what());
    throw error;
  }
  if (!BindTo(socket_, name_)) {
    const AccessLockError error(errno);
    syslog(LOG_ERR, "[AccessLock]: Failed to bind socket{%s}: {%s}", name_.c_str(), error.what());
    throw error;
  }
}

void AccessLock::Close() {
  if (socket_ == -1) return;
  int result;
  do {
    result = close(socket_);
  } while (result == -1 && errno == EINTR);
  const int error = errno;
  socket_ = -1;
  if (result == -1) throw AccessLockError(error);
}

}  // namespace LifeCycle
