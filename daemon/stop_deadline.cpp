#include "daemon/stop_deadline.h"

#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "tesselibs/log.h"
#include "tesselibs/signals_blocked.h"

namespace Host::Settings::SettingsApi {

StopDeadline::StopDeadline(std::chrono::milliseconds time) {
  const auto watch = [this, deadline = std::chrono::steady_clock::now() + time] {
    std::unique_lock lock(mutex_);
    if (changed_.wait_until(lock, deadline, [this] { return stopped_; })) return;
    Log_Level(LogLevel::kError, "Calls or tasks that do not end are left behind\n");
    Log_Flush();
    _exit(EXIT_SUCCESS);
  };
  try {
    const SignalsBlocked blocked;
    thread_ = std::thread(watch);
  } catch (const std::system_error&) {
    // Without a thread the stop takes as long as it takes.
  }
}

StopDeadline::~StopDeadline() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

}  // namespace Host::Settings::SettingsApi
