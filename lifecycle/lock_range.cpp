#include "lifecycle/lock_range.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>

#include "lifecycle/paths.h"

namespace LifeCycle {
namespace {

/// As many of the digest's digits as a position in a file can hold.
constexpr std::size_t kDigestDigits = 32;
constexpr std::size_t kUsedDigits = 15;

UniqueFd OpenLockFile() {
  return UniqueFd(open(kLockFile.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
}

/// Makes the folders above the file, as far as they are missing.
void MakeFolder() {
  for (auto end = kLockFile.find('/', 1); end != std::string::npos;
       end = kLockFile.find('/', end + 1))
    mkdir(kLockFile.substr(0, end).c_str(), 0700);
}

struct flock ByteOf(const std::string& name) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = std::stoll(name.substr(name.size() - kDigestDigits, kUsedDigits), nullptr, 16);
  range.l_len = 1;
  return range;
}

}  // namespace

int LockRange::Take(const std::string& name) {
  file_ = OpenLockFile();
  if (!file_ && errno == ENOENT) {
    MakeFolder();
    file_ = OpenLockFile();
  }
  if (!file_) return errno;
  const auto range = ByteOf(name);
  if (fcntl(file_.Get(), F_OFD_SETLK, &range) == 0) return 0;
  const int error = errno;
  Release();
  return error == EAGAIN || error == EACCES ? EADDRINUSE : error;
}

bool LockRange::IsHeld(const std::string& name) {
  const UniqueFd file = OpenLockFile();
  auto range = ByteOf(name);
  return file && fcntl(file.Get(), F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

}  // namespace LifeCycle
