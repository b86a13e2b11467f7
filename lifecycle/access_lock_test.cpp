#include "lifecycle/access_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include <boost/filesystem/operations.hpp>

namespace LifeCycle {
namespace {

using testing::HasSubstr;

constexpr char kPath[] = "/nowhere/guarded.json";
const std::string kName = "{/com/tessel/f457b90849d3e0d579b03e615ef29b8c}";
const std::string kInUse = "{Address already in use}";

/// @return the system's error number, or 0 when the lock could be taken
int TryLock(const std::string& path) {
  try {
    const AccessLock lock(path, 0);
    return 0;
  } catch (const AccessLockError& e) {
    EXPECT_STREQ(e.what(), std::strerror(e.error_number()));
    return e.error_number();
  }
}

/// The sandbox's system log for as long as it lives.
class SystemLog {
 public:
  SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    unlink(address.sun_path);
    if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) abort();
  }
  ~SystemLog() {
    close(socket_);
    unlink("/dev/log");
  }

  /// @return the severity and the text of each line so far
  [[nodiscard]] std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    char line[1024];
    for (ssize_t size; (size = recv(socket_, line, sizeof line, 0)) > 0;) {
      const std::string text(line, static_cast<std::size_t>(size));
      const int severity = std::atoi(text.c_str() + 1) & 7;
      lines.push_back(std::to_string(severity) + text.substr(text.find(": ") + 1));
    }
    return lines;
  }

  /// Writes to it until it takes no more; one sender alone can reach a limit of its own before.
  void Fill() const {
    for (bool taken = true; taken;) {
      const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      const sockaddr_un address{AF_UNIX, "/dev/log"};
      EXPECT_EQ(connect(sender, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
      for (taken = false; send(sender, "<6>: full", 9, 0) == 9;) taken = true;
      close(sender);
    }
  }

  /// Waits for a line with this text in it; gives up when there is none at all for ten seconds.
  void WaitFor(const std::string& text) const {
    pollfd readable{socket_, POLLIN, 0};
    while (poll(&readable, 1, 10000) == 1)
      for (const auto& line : Lines())
        if (line.find(text) != line.npos) return;
  }

 private:
  int socket_;
};

TEST(AccessLock, SecondUserOfThePathIsRefusedUntilTheFirstLetsGo) {
  boost::filesystem::current_path("/tmp");
  auto lock = std::make_unique<AccessLock>("/tmp/guarded.json", 0);
  EXPECT_EQ(TryLock("/tmp/guarded.json"), EADDRINUSE);
  EXPECT_EQ(TryLock("guarded.json"), EADDRINUSE);
  EXPECT_EQ(TryLock("/tmp/guarded"), 0);
  lock.reset();
  EXPECT_EQ(TryLock("guarded.json"), 0);
}

TEST(AccessLock, NameIsTheOneOtherProgramsBind) {
  const AccessLock lock(kPath, 0);
  std::ostringstream sockets;
  sockets << std::ifstream("/proc/net/unix").rdbuf();
  EXPECT_THAT(sockets.str(), HasSubstr(" @" + kName.substr(1, kName.size() - 2) + "\n"));
}

TEST(AccessLock, KilledHolderLeavesNoLockBehind) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    const AccessLock lock(kPath, 0);
    while (write(ready[1], "", 1) == 1) pause();
  }
  char byte;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(TryLock(kPath), EADDRINUSE);
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  EXPECT_EQ(TryLock(kPath), 0);
}

TEST(AccessLock, ReturnsWithoutTheLockAfterTheLastRetry) {
  const AccessLock holder(kPath, 0);
  const SystemLog log;
  const AccessLock lock(kPath, 2);
  std::vector<std::string> expected = {"6 [AccessLock]: Create lock with retry count{2}"};
  for (const std::string count : {"0", "1"}) {
    expected.push_back("3 [AccessLock]: Failed to bind socket" + kName + ": " + kInUse);
    expected.push_back("6 [AccessLock]: socket" + kName + " closed");
    expected.push_back("3 [AccessLock]: Acquiring lock failed on socket" + kName + ", count{" +
                       count + "/2}: " + kInUse);
    expected.push_back("3 [AccessLock]: Sleeping for a second and retrying to acquire lock" +
                       kName + ", count{" + (count == "0" ? "1" : "2") + "/2}");
  }
  expected.push_back("3 [AccessLock]: Lock acquired on socket" + kName + ", count{2/2}");
  EXPECT_EQ(log.Lines(), expected);
}

TEST(AccessLock, StuckSystemLogHoldsNobodyUp) {
  const SystemLog log;
  log.Fill();
  EXPECT_EQ(TryLock(kPath), 0);
  EXPECT_THAT(log.Lines(), testing::Each(testing::Not(HasSubstr("AccessLock"))));
}

TEST(AccessLock, TakesTheLockThatIsFreedWhileItWaits) {
  auto holder = std::make_unique<AccessLock>(kPath, 0);
  const SystemLog log;
  std::thread other([&] {
    log.WaitFor("Acquiring lock failed");
    holder.reset();
  });
  const AccessLock lock(kPath, 5);
  other.join();
  EXPECT_EQ(TryLock(kPath), EADDRINUSE);
}

}  // namespace
}  // namespace LifeCycle
