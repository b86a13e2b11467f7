#include "lib/ticket/ticket.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "tesselibs/log.h"
#include "tesselibs/unique_fd.h"

namespace Ticket {
namespace {

constexpr std::size_t kShortestText = 16;
constexpr std::size_t kLongestText = 255;
constexpr std::size_t kNameBufferSize = 128;
constexpr mode_t kPermissions = 07777;

std::string PathOf(const std::string& text) { return std::string(kDirectory) + kFilePrefix + text; }

bool LimitFileAccess(const char* path, mode_t mode) {
  if (chmod(path, mode) == 0) return true;
  const int error = errno;
  Log_Level(LogLevel::kError, "[Ticket] LimitFileAccess: chmod(%s, %oo) failed: %d/%s\n", path,
            mode, error, strerror(error));
  return false;
}

bool IsOpenToOthers(const struct stat& status) { return (status.st_mode & 077) != 0; }

/// Whether the open file is as an issuer leaves it: what others could have read, put there or still
/// reach by another name is none.
bool IsTicketFile(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
         status.st_nlink == 1 && (status.st_mode & kPermissions) == 0600;
}

/// Whether only this process's user and root decide what stands at a path: each directory on the
/// way to it is theirs, and closed to what others would write, be it by a sticky bit.
bool IsReachedSafely(const std::string& path) {
  for (auto end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
    struct stat status = {};
    if (stat(path.substr(0, end).c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
    if (status.st_uid != 0 && status.st_uid != geteuid()) return false;
    if ((status.st_mode & 022) != 0 && (status.st_mode & S_ISVTX) == 0) return false;
  }
  return true;
}

/// Reads and compares the ticket's own text and the line end behind it.
bool HasText(int fd, const std::string& text) {
  std::string line(text.size() + 1, '\0');
  const ssize_t length = pread(fd, line.data(), line.size(), 0);
  const bool whole = length == static_cast<ssize_t>(line.size());
  if (whole && line.back() != '\n') {
    Log_Level(LogLevel::kError, "[Ticket] Invalid ticket - too long.\n");
    return false;
  }
  if (!whole || !line.starts_with(text)) {
    Log_Level(LogLevel::kError, "[Ticket] Invalid ticket.\n");
    return false;
  }
  return true;
}

/// Reads the name that begins at `offset` and ends with a NUL.
std::optional<std::string> ReadName(int fd, std::size_t offset, const char* what) {
  if (lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    Log_Level(LogLevel::kError, "[Ticket] Cannot seek to the beginning of %s.\n", what);
    return std::nullopt;
  }
  std::array<char, kNameBufferSize> buffer;
  // One read is enough: a regular file gives less than was asked for only at its end.
  const ssize_t length = read(fd, buffer.data(), buffer.size());
  if (length < 0) {
    Log_Level(LogLevel::kError, "[Ticket] Cannot read %s: %s.\n", what, strerror(errno));
    return std::nullopt;
  }
  if (length == 0) {
    Log_Level(LogLevel::kError, "[Ticket] Cannot read %s: ticket on disk is truncated.\n", what);
    return std::nullopt;
  }
  const auto end = buffer.begin() + length;
  const auto nul = std::find(buffer.begin(), end, '\0');
  if (nul != end) return std::string(buffer.begin(), nul);
  if (end == buffer.end()) {
    Log_Level(LogLevel::kError, "[Ticket] Cannot find end of %s: %s.\n", what,
              strerror(ENAMETOOLONG));
  } else {
    Log_Level(LogLevel::kError, "[Ticket] Cannot find end of %s: ticket on disk is truncated.\n",
              what);
  }
  return std::nullopt;
}

/// Reads the user name; empty when the ticket ends before it, or with something else.
std::string ReadUser(int fd, std::size_t offset) {
  std::array<char, kNameBufferSize> buffer;
  const ssize_t length = pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(offset));
  const auto end = buffer.begin() + std::max<ssize_t>(length, 0);
  const auto nul = std::find(buffer.begin(), end, '\0');
  return nul == end ? std::string() : std::string(buffer.begin(), nul);
}

}  // namespace

bool IsWellFormed(const std::string& text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 128 || c == '/' || c == '\\') {
      Log_Level(LogLevel::kError, "[Ticket] Illegal character in the ticket.\n");
      return false;
    }
    if (byte <= ' ' || byte == 0x7F) {
      Log_Level(LogLevel::kError, "[Ticket] Non-graphic character in the ticket.\n");
      return false;
    }
  }
  if (text.size() < kShortestText) {
    Log_Level(LogLevel::kError, "[Ticket] Ticket is too short. Actual %zu, expected at least %d\n",
              text.size(), static_cast<int>(kShortestText));
    return false;
  }
  if (text.size() > kLongestText) {
    Log_Level(LogLevel::kError, "[Ticket] Ticket too long.\n");
    return false;
  }
  return true;
}

std::optional<Content> Find(const std::string& text) {
  if (!IsWellFormed(text)) return std::nullopt;
  if (!SetUpDirectory(kDirectory)) {
    Log_Level(LogLevel::kError, "[Ticket] Failed to setup ticket dir (service: %s).\n", "none");
    return std::nullopt;
  }
  const std::string path = PathOf(text);
  // Without O_NONBLOCK a FIFO in place of a ticket would hold up every other caller.
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file || !IsTicketFile(file.Get())) {
    Log_Level(LogLevel::kError, "[Ticket] Ticket not found: %s\n", text.c_str());
    return std::nullopt;
  }
  return ReadContent(file.Get(), text);
}

bool Consume(const std::string& text) {
  if (unlink(PathOf(text).c_str()) != 0) {
    Log_Level(LogLevel::kError, "[Ticket] Failed to delete ticket %s: %s\n", text.c_str(),
              strerror(errno));
    return false;
  }
  Log_Level(LogLevel::kInformation, "[Ticket] Deleted ticket %s\n", text.c_str());
  return true;
}

std::optional<Content> ReadContent(int fd, const std::string& text) {
  if (!HasText(fd, text)) return std::nullopt;
  const std::size_t begin = text.size() + 1;
  auto configFile = ReadName(fd, begin, "config file name");
  if (!configFile) return std::nullopt;
  auto service = ReadName(fd, begin + configFile->size() + 1, "service name");
  if (!service) return std::nullopt;
  const std::size_t userBegin = begin + configFile->size() + 1 + service->size() + 1;
  return Content{std::move(*configFile), std::move(*service), ReadUser(fd, userBegin)};
}

bool SetUpDirectory(const char* path) {
  // With its slash at the end, the path would lead through a symbolic link.
  std::string name = path;
  while (name.ends_with('/')) name.pop_back();
  struct stat status = {};
  if (lstat(name.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != geteuid() ||
      !IsReachedSafely(name)) {
    return false;
  }
  return !IsOpenToOthers(status) || LimitFileAccess(path, 0700);
}

}  // namespace Ticket
