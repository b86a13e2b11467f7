#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <utility>

#include <boost/asio/io_context.hpp>

#include "apps/lifecycle/orbi/include/logger.h"
#include "configuration/messages/translations.h"
#include "daemon/call_threads.h"
#include "daemon/endpoint.h"
#include "daemon/memory_trimmer.h"
#include "daemon/private_state.h"
#include "daemon/provider.h"
#include "lib/ticket/reaper.h"
#include "lifecycle/access_lock.h"
#include "lifecycle/paths.h"
#include "lifecycle/startup.h"
#include "tesselibs/feature_state.h"
#include "tesselibs/log.h"
#include "tesselibs/poll.h"
#include "tesselibs/preference.h"
#include "tesselibs/service_notify.h"

namespace {

using namespace Host::Settings::SettingsApi;

constexpr int kFailedToStart = -1;

/// The threads that run the I/O context; others only hand it work.
constexpr int kIoThreads = 1;

/// Set by the SIGTERM handler, read by the poll loop.
volatile char stopRequested = 0;

/// Fills the standard streams that are closed: whatever is opened first would become them, and
/// every helper inherits them.
void OpenStandardStreams() {
  int stream;
  do {
    stream = open("/dev/null", O_RDWR);
  } while (stream >= 0 && stream <= STDERR_FILENO);
  close(stream);
}

void StartSystemLog() {
  auto output = Log_NewSyslogOutput("kestreld", "syslog", Log_CfgInterface());
  Log_SetOutputLevel(*output, LogLevel::kDebug);
  if (!Log_AddOutput(output)) Log_FreeOutput(std::move(output));
}

void InstallSignalHandlers() {
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = [](int) { stopRequested = 1; };
  if (sigaction(SIGTERM, &action, nullptr) != 0)
    Log_Level(LogLevel::kError, "Error in registering sigterm handler\n");
  // A client or a helper that has gone is an ordinary error of the write that met it.
  signal(SIGPIPE, SIG_IGN);
  // A parent that ignored it leaves it ignored: the kernel would then throw away how helpers ended.
  signal(SIGCHLD, SIG_DFL);
}

/// A helper may be writing its record at this moment: the lock is worth waiting for.
std::unique_ptr<LifeCycle::TaskFile> OpenTaskFile() {
  constexpr int kAttempts = 5;
  for (int attempt = 1;; ++attempt) {
    try {
      return std::make_unique<LifeCycle::TaskFile>(LifeCycle::kTaskStatusFile,
                                                   LifeCycle::TaskFile::Initialise::kAlways);
    } catch (const LifeCycle::AccessLockError&) {
      if (attempt == kAttempts) throw;
      sleep(1);
    }
  }
}

/// Serves until SIGTERM. What is made here goes in the reverse order: endpoint, provider, the
/// threads of calls, I/O context, logger.
int Serve() {
  const auto logger = std::make_shared<OrbiLoggerWrapper>(&Log_Level);
  boost::asio::io_context io(kIoThreads);
  CallThreads threads;
  const auto provider = BuildProvider(logger, threads, io);
  LifeCycle::LoadTranslations();
  Endpoint endpoint(provider, io, threads, logger);
  const auto reaper = std::make_shared<Ticket::Reaper>(io);
  MemoryTrimmer trimmer(io);
  try {
    reaper->Start();
    trimmer.Start();
    endpoint.Start();
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "Failed to start HTTP service. Aborting. Error:%s\n", e.what());
    return kFailedToStart;
  }
  Poll_Loop(true, &stopRequested);
  endpoint.Stop();
  Poll_Exit();
  return EXIT_SUCCESS;
}

}  // namespace

int main() {
  OpenStandardStreams();
  ServiceNotify_Init();
  StartSystemLog();
  InstallSignalHandlers();
  MakeStatePrivate();
  FeatureState_InitSilentMode();
  Preference_Init();
  Poll_InitDefault();
  std::unique_ptr<LifeCycle::TaskFile> taskFile;
  try {
    taskFile = OpenTaskFile();
    LifeCycle::FailAbandonedTasks(*taskFile);
  } catch (const std::exception& e) {
    Log_Level(LogLevel::kCritical, "Failed to open the task status file %s: %s\n",
              LifeCycle::kTaskStatusFile.c_str(), e.what());
    return kFailedToStart;
  }
  return Serve();
}
