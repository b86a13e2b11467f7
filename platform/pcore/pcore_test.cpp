#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "pcore/pcore_ctl.h"
#include "pcore/pcoreuser_compat.h"
#include "tesselibs/testing/captured_log.h"

namespace {

using HostCtl::Lib::HostCtlException;
using PcoreCtl::Util::PcoreCtl_Daemon;
using PcoreCtl::Util::PcoreCtl_Exec;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

std::string ReadAll(const PcoreuserCompat_Handle& handle) {
  std::string output;
  char buffer[4096];
  for (ssize_t length; (length = read(handle.Descriptor(), buffer, sizeof buffer)) > 0;) {
    output.append(buffer, static_cast<std::size_t>(length));
  }
  return output;
}

std::string OutputOf(const std::string& command) {
  PcoreuserCompat_Handle handle;
  EXPECT_EQ(PcoreuserCompat_POpen(command, "r", handle), 0);
  std::string output = ReadAll(handle);
  int status = -1;
  EXPECT_EQ(PcoreuserCompat_PClose(handle, status), 0);
  EXPECT_EQ(status, 0) << command;
  return output;
}

/// Waits with a bound until the condition holds.
template <typename Condition>
bool Eventually(Condition condition) {
  for (int i = 0; i < 2000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

bool HasChildren() {
  siginfo_t info;
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

std::ptrdiff_t CountDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class PcoreTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/pcore-test-XXXXXX";
    directory_ = mkdtemp(name);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string directory_;
};

TEST_F(PcoreTest, AChildGetsItsStreamsAndNothingElse) {
  const UniqueFd leaky(open("/dev/null", O_RDONLY));
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &previous);
  const auto previousPipe = signal(SIGPIPE, SIG_IGN);

  EXPECT_EQ(OutputOf("/bin/ls /proc/self/fd"), "0\n1\n2\n3\n") << "3 is the directory being read";
  const std::string status = OutputOf("/bin/cat /proc/self/status");
  EXPECT_THAT(status, HasSubstr("SigBlk:\t0000000000000000"));
  EXPECT_THAT(status, HasSubstr("SigIgn:\t0000000000000000"));
  sigset_t now;
  pthread_sigmask(SIG_SETMASK, &previous, &now);
  EXPECT_TRUE(sigismember(&now, SIGTERM)) << "the caller's mask was not given back";
  signal(SIGPIPE, previousPipe);

  const std::string path = getenv("PATH");
  unsetenv("PATH");
  EXPECT_THAT(OutputOf("/usr/bin/env"), HasSubstr("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin"));
  setenv("PATH", path.c_str(), 1);
  EXPECT_THAT(OutputOf("/usr/bin/env"), HasSubstr("PATH=" + path + "\n"));
}

TEST_F(PcoreTest, ACommandThatCannotStartIsToldAndLeavesNothing) {
  const std::string plain = directory_ + "/plain";
  std::ofstream(plain) << "#!/bin/sh\n";
  PcoreCtl_Exec("/bin/true", false, true, true);
  const auto descriptors = CountDescriptors();
  const std::pair<std::string, int> cases[] = {
      {"/no/such/program --option", ENOENT},
      {"true", ENOENT},
      {plain, EACCES},
      {"/bin/true 'x", EINVAL},
      {std::string("/bin/true a\0b", 13), EINVAL},
      {"/bin/true ++group=x,mem=lots", EINVAL},
      {"++group=x", EINVAL},
  };
  for (const auto& [command, expected] : cases) {
    PcoreuserCompat_Handle handle;
    EXPECT_EQ(PcoreuserCompat_POpen(command, "r", handle), expected) << command;
    EXPECT_EQ(handle.Descriptor(), -1);
    for (const bool detached : {true, false}) {
      try {
        detached ? PcoreCtl_Daemon(command, false, false, true, true)
                 : PcoreCtl_Exec(command, false, true, true);
        ADD_FAILURE() << command << " started";
      } catch (const HostCtlException& error) {
        EXPECT_EQ(error.code().value(), expected) << error.what();
      }
    }
  }
  PcoreuserCompat_Handle handle;
  EXPECT_EQ(PcoreuserCompat_POpen("/bin/true", "rw", handle), EINVAL);
  EXPECT_FALSE(HasChildren());
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(PcoreTest, ADetachedHelperIsNoChildAndHoldsNoListeningSocket) {
  const std::string started = directory_ + "/started";
  const std::string end = directory_ + "/end";
  ASSERT_EQ(mkfifo(end.c_str(), 0600), 0);

  UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(bind(listener.Get(), generic, length), 0);
  ASSERT_EQ(listen(listener.Get(), 1), 0);
  ASSERT_EQ(getsockname(listener.Get(), generic, &length), 0);

  ASSERT_EQ(PcoreCtl_Daemon("/bin/sh -c 'ps -o ppid=,sid=,pid= $$ >" + started + ".new; mv " +
                                started + ".new " + started + "; read line <" + end + "'",
                            false, false, true, true),
            0);
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(started); }));
  EXPECT_FALSE(HasChildren());
  pid_t parent = 0;
  pid_t session = 0;
  pid_t self = 0;
  std::ifstream(started) >> parent >> session >> self;
  EXPECT_NE(parent, getpid());
  EXPECT_EQ(session, self);

  listener.Reset();
  const UniqueFd again(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(bind(again.Get(), generic, length), 0) << strerror(errno);
  EXPECT_EQ(listen(again.Get(), 1), 0);
  EXPECT_EQ(kill(self, 0), 0) << "the helper must still be there for this to mean anything";
  std::ofstream(end) << "\n";
}

TEST_F(PcoreTest, TheEndOfADetachedProcessIsToldUntilItIsSeenTo) {
  for (const std::string options : {"", " ++group=g,stats"}) {
    const std::string end = directory_ + "/end" + options;
    std::atomic<int> told = 0;
    std::atomic<bool> early = false;
    PcoreCtl_Daemon("/bin/sh -c 'while test ! -e \"" + end + "\"; do sleep 0.01; done'" + options,
                    false, false, true, true, [&] {
                      early = early || !std::filesystem::exists(end);
                      return ++told == 2;
                    });
    std::ofstream(end) << "";
    EXPECT_TRUE(Eventually([&] { return told == 2; }));
    EXPECT_FALSE(early);
  }
}

TEST_F(PcoreTest, AThousandRunsLeaveNeitherZombiesNorDescriptors) {
  const auto abandon = [] {
    PcoreuserCompat_Handle handle;
    ASSERT_EQ(PcoreuserCompat_POpen("/bin/cat /dev/zero", "r", handle), 0);
  };
  abandon();  // starts the reaper
  ASSERT_TRUE(Eventually([] { return !HasChildren(); }));
  const auto descriptors = CountDescriptors();

  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&abandon] {
      for (int run = 0; run < 84; ++run) {
        EXPECT_EQ(OutputOf("/bin/echo x"), "x\n");
        abandon();
        PcoreCtl_Daemon("/bin/true ++group=g,stats", false, false, true, true);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(Eventually([] { return !HasChildren(); }));
  EXPECT_TRUE(Eventually([&] { return CountDescriptors() == descriptors; }));
}

TEST_F(PcoreTest, MemoryOfAGroupIsLimited) {
  const std::string command = "/usr/bin/python3 -c 'b\"x\" * (200 << 20)' ++group=test,mem=";
  EXPECT_EQ(PcoreCtl_Exec(command + "400", true, true, true), 0);
  EXPECT_NE(PcoreCtl_Exec(command + "100", true, true, true), 0);
  EXPECT_EQ(PcoreCtl_Exec(command + "100", true, false, true), 0);
}

TEST_F(PcoreTest, StatsLogsWhatACommandUsed) {
  CapturedLog log;
  const auto usageOf = [](const std::string& group) {
    return MatchesRegex("6 \\[" + group +
                        "\\]: process [0-9]+ ended after [0-9.]+ s, CPU time [0-9.]+ s, "
                        "peak memory [1-9][0-9]* KiB");
  };
  PcoreCtl_Exec("/bin/true ++group=quiet", false, true, true);
  PcoreCtl_Exec("/bin/true ++group=told-not-to,stats", false, true, false);
  PcoreCtl_Exec("/bin/true ++group=waited-for,stats", false, true, true);
  EXPECT_THAT(log.TakeLines(), ElementsAre(usageOf("waited-for")));

  const std::string end = directory_ + "/end";
  PcoreCtl_Daemon("/bin/sh -c 'while test ! -e " + end + "; do :; done' ++group=detached,stats",
                  false, false, true, true);
  std::ofstream(end) << "";
  std::vector<std::string> lines;
  ASSERT_TRUE(Eventually([&] { return !(lines = log.TakeLines()).empty(); }));
  EXPECT_THAT(lines, ElementsAre(usageOf("detached")));
}

}  // namespace
