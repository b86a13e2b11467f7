#include "lib/ticket/reaper.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "lib/ticket/ticket.h"
#include "tesselibs/log.h"

namespace Ticket {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

bool IsStale(const struct stat& status) {
  const std::chrono::seconds age{time(nullptr) - status.st_mtime};
  return age > kReapingTimeout;
}

/// Removes the ticket when it is stale. That it is gone is no fault: it was just used.
void ReapTicket(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      Log_Level(LogLevel::kError, "[Ticket] Failed to stat ticket %s: %s\n", path.c_str(),
                strerror(errno));
    }
    return;
  }
  if (!IsStale(status)) return;
  Log_Level(LogLevel::kInformation, "[Ticket] Reaping stale ticket %s\n", path.c_str());
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    Log_Level(LogLevel::kError, "[Ticket] Failed to remove stale ticket %s: %s\n", path.c_str(),
              strerror(errno));
  }
}

void ReapDirectory(const char* path) {
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(path));
  if (!directory) {
    Log_Level(LogLevel::kError, "[Ticket] Unable to open dir %s\n", path);
    return;
  }
  while (const dirent* const entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with(kFilePrefix)) ReapTicket(std::string(path).append(name));
  }
}

}  // namespace

void ReapStaleTickets() {
  // A missing directory is no more than information: it is made with the first ticket.
  if (SetUpDirectory(kDirectory)) {
    ReapDirectory(kDirectory);
  } else {
    Log_Level(LogLevel::kInformation, "[Ticket] Failed to get ticket dir in reap.\n");
  }
  if (SetUpDirectory(kRemoteDeviceDirectory)) {
    ReapDirectory(kRemoteDeviceDirectory);
  } else {
    Log_Level(LogLevel::kInformation, "[Ticket] Failed to get remoteDevice ticket dir in reap.\n");
  }
}

Reaper::Reaper(boost::asio::io_context& io, std::chrono::milliseconds interval)
    : interval_(interval), timer_(io) {}

void Reaper::Start() {
  timer_.expires_after(interval_);
  timer_.async_wait([self = weak_from_this()](const boost::system::error_code&) {
    // Gone when the reaper was destroyed, whether that cancelled the wait or it had ended already.
    if (const auto reaper = self.lock()) reaper->Start();
  });
  ReapStaleTickets();
}

}  // namespace Ticket
