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
constexpr const char* kFolders[] = {"/var/tessel/lifecycle", "/var/tessel/configstore"};

void Close(const char* folder) {
  const UniqueFd directory(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status = {};
  if (!directory && errno == ENOENT) return;
  if (directory && fstat(directory.Get(), &status) == 0) {
    if ((status.st_mode & kOthers) == 0) return;
    if (fchmod(directory.Get(), 0700) == 0) {
      Log_Level(LogLevel::kNotice, "%s was open to other users\n", folder);
      return;
    }
  }
  Log_Level(LogLevel::kError, "%s cannot be closed to other users: %s\n", folder, strerror(errno));
}

}  // namespace

void MakeStatePrivate() {
  umask(kOthers);
  for (const char* const folder : kFolders) Close(folder);
}
