#include "daemon/private_state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tesselibs/log.h"
#include "tesselibs/unique_fd.h"

namespace {

constexpr mode_t kOthers = 077;

struct Folder {
  const char* path;
  mode_t mode;
};

/// Through the first everybody reaches the programs of the image; what is in it is closed itself.
constexpr Folder kFolders[] = {{"/var/tessel/lifecycle", 0711}, {"/var/tessel/configstore", 0700}};

void Close(const Folder& wanted) {
  const char* const folder = wanted.path;
  const UniqueFd directory(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status = {};
  if (!directory && errno == ENOENT) return;
  if (directory && fstat(directory.Get(), &status) == 0) {
    if ((status.st_mode & kOthers & ~wanted.mode) == 0) return;
    if (fchmod(directory.Get(), wanted.mode) == 0) {
      Log_Level(LogLevel::kNotice, "%s was open to other users\n", folder);
      return;
    }
  }
  Log_Level(LogLevel::kError, "%s cannot be closed to other users: %s\n", folder, strerror(errno));
}

}  // namespace

void MakeStatePrivate() {
  umask(kOthers);
  for (const Folder& folder : kFolders) Close(folder);
}
