#include "lifecycle/access_lock.h"

#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>
#include <thread>

#include <boost/filesystem/operations.hpp>

#include "lifecycle/waiting.h"
#include "tesselibs/socket_owner.h"
#include "tesselibs/unique_fd.h"

namespace LifeCycle {
namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 1s;
constexpr auto kShortWait = 200ms;
constexpr auto kLookInterval = 5ms;

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

/// The user who has bound a name that is in use, when it is not this process's own.
std::optional<uid_t> StrangerWith(const std::string& name) {
  const auto owner = OwnerOfAbstractName(name);
  return owner == geteuid() ? std::nullopt : owner;
}

}  // namespace

AccessLockError::AccessLockError(int errorNumber)
    : errorNumber_(errorNumber), text_(std::strerror(errorNumber)) {}

AccessLock::AccessLock(const std::string& path, int retries, Before before)
    : name_(SocketName(path)) {
  const char* const name = name_.c_str();
  syslog(LOG_INFO, "[AccessLock]: Create lock with retry count{%d}", retries);
  int count = 0;
  bool acquired = before == Before::kShortWait && WaitShortly(retries > 0);
  while (!acquired) {
    try {
      Bind();
      acquired = true;
    } catch (const AccessLockError& e) {
      Close();
      syslog(LOG_INFO, "[AccessLock]: socket{%s} closed", name);
      syslog(LOG_ERR, "[AccessLock]: Acquiring lock failed on socket{%s}, count{%d/%d}: {%s}", name,
             count, retries, e.what());
      if (e.errorNumber() != EADDRINUSE || count >= retries || !Wait(kPause)) {
        syslog(LOG_ERR, "[AccessLock]: Giving up on acquiring lock{%s}, count{%d/%d}: {%s}", name,
               count, retries, e.what());
        throw;
      }
      ++count;
      syslog(LOG_ERR,
             "[AccessLock]: Sleeping for a second and retrying to acquire lock{%s}, count{%d/%d}",
             name, count, retries);
      acquired = count >= retries;  // or as good as that
    }
  }
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
  const std::string name = SocketName(path);
  if (LockRange::IsHeld(name)) return true;
  const UniqueFd descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return !descriptor || (!BindTo(descriptor.Get(), name) && !StrangerWith(name));
}

/// @param looks  whether the lock is tried for, too
/// @return whether it was had
bool AccessLock::WaitShortly(bool looks) {
  turn_.emplace();
  if (!looks) return false;
  const auto end = Turn::Clock::now() + (turn_->NeighbourFoundItBusy() ? 0ms : kShortWait);
  int error = TryToBind();
  while (error == EADDRINUSE && Turn::Clock::now() < end) {
    Close();
    std::this_thread::sleep_for(kLookInterval);  // worth it although the process stops
    error = TryToBind();
  }
  if (error == 0) return true;
  Close();
  turn_->ReportBusy();
  turn_.reset();  // the waits to come are too long for the neighbours
  return false;
}

/// Makes the socket and binds it to the name.
void AccessLock::Bind() {
  const int number = TryToBind();
  if (number == 0) return;
  const AccessLockError error(number);
  const char* const step = socket_ == -1 ? "create" : "bind";
  syslog(LOG_ERR, "[AccessLock]: Failed to %s socket{%s}: {%s}", step, name_.c_str(), error.what());
  throw error;
}

/// @return 0 or the system's error number; there is no socket when it cannot be made
int AccessLock::TryToBind() {
  socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_ == -1) return errno;
  const int withoutRange = range_.Take(name_);
  if (withoutRange == EADDRINUSE) return EADDRINUSE;
  if (BindTo(socket_, name_)) return 0;
  if (const int error = errno; error != EADDRINUSE) return error;
  const auto stranger = StrangerWith(name_);
  if (!stranger) return EADDRINUSE;
  if (withoutRange != 0) return withoutRange;
  syslog(LOG_ERR, "[AccessLock]: socket{%s} is bound by user %u, which is no lock", name_.c_str(),
         static_cast<unsigned>(*stranger));
  return 0;
}

/// The name goes first: whoever has the range finds the name free then.
void AccessLock::Close() {
  if (socket_ == -1) return;
  int result;
  do {
    result = close(socket_);
  } while (result == -1 && errno == EINTR);
  const int error = errno;
  socket_ = -1;
  range_.Release();
  if (result == -1) throw AccessLockError(error);
}

}  // namespace LifeCycle
