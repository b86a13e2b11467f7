#include "lifecycle/access_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "lifecycle/testing/quick_waits.h"
#include "tesselibs/testing/system_log.h"
#include "tesselibs/unique_fd.h"

namespace LifeCycle {
namespace {

using namespace std::chrono_literals;

constexpr char kPath[] = "/nowhere/guarded.json";
const std::string kName = "{/com/tessel/f457b90849d3e0d579b03e615ef29b8c}";
const std::string kInUse = "{Address already in use}";

/// @return the system's error number, or 0 when the lock could be taken
int TryLock(const std::string& path) {
  try {
    const AccessLock lock(path, 0);
    return 0;
  } catch (const AccessLockError& e) {
    EXPECT_STREQ(e.what(), std::strerror(e.errorNumber()));
    return e.errorNumber();
  }
}

TEST(AccessLock, SecondUserOfThePathIsRefusedUntilTheFirstLetsGo) {
  boost::filesystem::current_path("/tmp");
  auto lock = std::make_unique<AccessLock>("/tmp/guarded.json", 0);
  EXPECT_EQ(TryLock("/tmp/guarded.json"), EADDRINUSE);
  EXPECT_EQ(TryLock("guarded.json"), EADDRINUSE);
  EXPECT_EQ(TryLock("/tmp/guarded"), 0);
  lock.reset();
  EXPECT_EQ(TryLock("guarded.json"), 0);
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
  const SystemLog log("/dev/log");
  openlog(nullptr, LOG_PID, LOG_DAEMON);  // in the form that ReceiveText takes apart
  const QuickWaits waits;
  const AccessLock lock(kPath, 2);
  EXPECT_THAT(QuickWaits::Taken(), testing::ElementsAre(1s, 1s));
  std::vector<std::string> expected = {"Create lock with retry count{2}"};
  for (const auto& [count, next] : {std::pair("{0/2}", "{1/2}"), std::pair("{1/2}", "{2/2}")}) {
    expected.push_back("Failed to bind socket" + kName + ": " + kInUse);
    expected.push_back("socket" + kName + " closed");
    expected.push_back("Acquiring lock failed on socket" + kName + ", count" + count + ": " +
                       kInUse);
    expected.push_back("Sleeping for a second and retrying to acquire lock" + kName + ", count" +
                       next);
  }
  expected.push_back("Lock acquired on socket" + kName + ", count{2/2}");
  for (const std::string& line : expected) EXPECT_EQ(log.ReceiveText(), "[AccessLock]: " + line);
}

TEST(AccessLock, TakesTheLockThatIsFreedWhileItWaits) {
  auto holder = std::make_unique<AccessLock>(kPath, 0);
  const QuickWaits waits([&] {
    holder.reset();
    return true;
  });
  const AccessLock lock(kPath, 5);
  EXPECT_EQ(TryLock(kPath), EADDRINUSE);
}

TEST(AccessLock, ProcessThatStopsDoesNotGetALockThatItWouldWaitFor) {
  const AccessLock holder(kPath, 0);
  const QuickWaits waits([] { return false; });
  for (const auto before : {AccessLock::Before::kNothing, AccessLock::Before::kShortWait})
    EXPECT_THROW(AccessLock(kPath, 5, before), AccessLockError);
  EXPECT_EQ(QuickWaits::Taken().size(), 2U);
}

TEST(AccessLock, LockThatIsHeldForMillisecondsIsHadWithoutAWord) {
  auto holder = std::make_unique<AccessLock>(kPath, 0);
  const SystemLog log("/dev/log");
  std::thread other([&] {
    EXPECT_EQ(log.ReceiveText(), "[AccessLock]: Create lock with retry count{5}");
    holder.reset();
  });
  {
    const AccessLock lock(kPath, 5, AccessLock::Before::kShortWait);
    other.join();
    EXPECT_EQ(TryLock(kPath), EADDRINUSE);
  }
  EXPECT_EQ(log.ReceiveText(), "[AccessLock]: Lock acquired on socket" + kName + ", count{0/5}");
}

/// A socket of another account that has bound the lock's name, as any account of the host can.
UniqueFd BindAsStranger() {
  UniqueFd stranger(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, kName.data() + 1, kName.size() - 2);
  const auto size = static_cast<socklen_t>(sizeof address.sun_family + kName.size() - 1);
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  const UniqueFd caller(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  // A connection that nobody accepts has the same name, and is told as root's.
  EXPECT_TRUE(bind(stranger.Get(), name, size) == 0 && listen(stranger.Get(), 1) == 0 &&
              connect(caller.Get(), name, size) == 0);
  return fchown(stranger.Get(), 1001, 1001) == 0 ? std::move(stranger) : UniqueFd();
}

TEST(AccessLock, NameThatAnotherUserHasIsNoLock) {
  boost::filesystem::remove_all("/var/tessel/lifecycle");
  UniqueFd stranger = BindAsStranger();
  if (!stranger) GTEST_SKIP() << "there is one account only in this user namespace";
  for (const auto before : {AccessLock::Before::kNothing, AccessLock::Before::kShortWait}) {
    const SystemLog log("/dev/log");
    openlog(nullptr, LOG_PID, LOG_DAEMON);
    const QuickWaits waits;
    auto lock = std::make_unique<AccessLock>(kPath, 5, before);
    for (const char* line :
         {"Create lock with retry count{5}", "is bound by user 1001", "Lock acquired on socket"})
      EXPECT_THAT(log.ReceiveText(), testing::HasSubstr(line));
    EXPECT_THAT(QuickWaits::Taken(), testing::IsEmpty());
    EXPECT_TRUE(AccessLock::IsHeld(kPath));
    EXPECT_EQ(TryLock(kPath), EADDRINUSE);
    lock.reset();
    EXPECT_FALSE(AccessLock::IsHeld(kPath));
  }
  const AccessLock lock(kPath, 0);
  stranger.Reset();
  EXPECT_EQ(TryLock(kPath), EADDRINUSE) << "the name is free, the lock is not";
}

TEST(AccessLock, NameAloneIsTheLockWhereThereCanBeNoFile) {
  const boost::filesystem::path folder = "/var/tessel/lifecycle";
  boost::filesystem::remove_all(folder);
  boost::filesystem::create_directories(folder.parent_path());
  boost::filesystem::create_symlink("/nowhere/at/all", folder);
  {
    const AccessLock lock(kPath, 0);
    EXPECT_EQ(TryLock(kPath), EADDRINUSE);
  }
  const UniqueFd stranger = BindAsStranger();
  if (stranger) {
    EXPECT_EQ(TryLock(kPath), ENOENT);
  }
  boost::filesystem::remove(folder);
}

TEST(AccessLock, ThreadsThatWaitShortlyTakeTurns) {
  const QuickWaits waits;
  int count = 0;
  std::vector<std::jthread> threads(8);
  for (auto& thread : threads) {
    thread = std::jthread([&count] {
      for (int i = 0; i < 50; ++i) {
        const AccessLock lock(kPath, i % 2 ? 0 : 5, AccessLock::Before::kShortWait);
        ++count;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(count, 400);
  EXPECT_THAT(QuickWaits::Taken(), testing::IsEmpty());
}

}  // namespace
}  // namespace LifeCycle
