#include "lib/ticket/ticket.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "lib/ticket/reaper.h"
#include "tesselibs/testing/captured_log.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using namespace std::string_literals;

const std::string kText = "0123456789abcdef";

/// The directories are the host's own: the test runs in a sandbox.
class TicketTest : public testing::Test {
 protected:
  TicketTest() {
    for (const char* directory : {Ticket::kDirectory, Ticket::kRemoteDeviceDirectory}) {
      fs::remove_all(directory);
      fs::create_directories(directory);
    }
  }

  static fs::path Issue(const std::string& text, const std::string& content) {
    fs::path path = Ticket::kDirectory + ("rntkt-" + text);
    std::ofstream(path, std::ios::binary) << content;
    fs::permissions(path, fs::perms{0600});
    return path;
  }

  CapturedLog log_;
};

TEST_F(TicketTest, OnlyAWellFormedTextWithAWholeTicketIsFound) {
  const std::string name(127, 'n');
  Issue(kText, kText + "\n\0"s + name + "\0trailing"s);
  EXPECT_EQ(Ticket::Find(kText), (Ticket::Content{"", name, ""}));
  Issue(kText, kText + "\n\0service\0"s + name + "\0trailing"s);
  EXPECT_EQ(Ticket::Find(kText), (Ticket::Content{"", "service", name}));
  EXPECT_THAT(log_.TakeLines(), ElementsAre());
  const struct {
    std::string content, line, text = kText;
  } cases[] = {
      {"", "Ticket is too short. Actual 15, expected at least 16", "0123456789abcde"},
      {"", "Ticket too long.", std::string(256, 'a')},
      {"", "Illegal character in the ticket.", "../../etc/passwd"},
      {"", "Illegal character in the ticket.", "0123456789abcd\u00e9"},
      {"", "Non-graphic character in the ticket.", "0123456789 abcdef"},
      {"", "Non-graphic character in the ticket.", "0123456789abcdef\0x"s},
      {kText, "Invalid ticket."},
      {"0123456789abcdeF\nc\0s\0"s, "Invalid ticket."},
      {kText + "0\nc\0s\0"s, "Invalid ticket - too long."},
      {std::string(1 << 20, 'x'), "Invalid ticket - too long."},
      {kText + "\n", "Cannot read config file name: ticket on disk is truncated."},
      {kText + "\nc", "Cannot find end of config file name: ticket on disk is truncated."},
      {kText + "\n" + name + "n", "Cannot find end of config file name: File name too long."},
      {kText + "\nc\0"s, "Cannot read service name: ticket on disk is truncated."},
      {kText + "\nc\0s"s, "Cannot find end of service name: ticket on disk is truncated."},
  };
  for (const auto& [content, line, text] : cases) {
    Issue(kText, content);
    EXPECT_EQ(Ticket::Find(text), std::nullopt) << line;
    EXPECT_THAT(log_.TakeLines(), ElementsAre("3 [Ticket] " + line));
  }
}

/// Ways in which something at the place of a ticket, or on the way there, can be wrong. Each begins
/// with a proper ticket.
const fs::path kFolder = fs::path(Ticket::kDirectory).parent_path();
const fs::path kFile = kFolder / (Ticket::kFilePrefix + kText);
const fs::path kElsewhere = "/var/run/tessel/elsewhere";
constexpr uid_t kMallory = 1001;

bool GiveAway(const fs::path& path) { return lchown(path.c_str(), kMallory, kMallory) == 0; }

const std::string kNotFound = "3 [Ticket] Ticket not found: " + kText;
const std::string kNoFolder = "3 [Ticket] Failed to setup ticket dir (service: none).";

const struct {
  const char* what;
  bool (*make)();  ///< tells whether it could, for which another account is needed
  const std::string& line;
} kWrong[] = {
    {"a file that others may read", [] { return chmod(kFile.c_str(), 0604) == 0; }, kNotFound},
    {"a file that its group may write", [] { return chmod(kFile.c_str(), 0620) == 0; }, kNotFound},
    {"a file of a strange mode", [] { return chmod(kFile.c_str(), 04600) == 0; }, kNotFound},
    {"another user's file", [] { return GiveAway(kFile); }, kNotFound},
    {"a second name", [] { return link(kFile.c_str(), kElsewhere.c_str()) == 0; }, kNotFound},
    {"a link to it",
     [] {
       fs::rename(kFile, kElsewhere);
       fs::create_symlink(kElsewhere, kFile);
       return true;
     },
     kNotFound},
    {"a link to nothing",
     [] {
       fs::remove(kFile);
       fs::create_symlink("/nowhere", kFile);
       return true;
     },
     kNotFound},
    {"a FIFO", [] { return fs::remove(kFile) && mkfifo(kFile.c_str(), 0600) == 0; }, kNotFound},
    {"a directory", [] { return fs::remove(kFile) && mkdir(kFile.c_str(), 0600) == 0; }, kNotFound},
    {"another user's folder", [] { return GiveAway(kFolder); }, kNoFolder},
    {"a link to the folder",
     [] {
       fs::rename(kFolder, kElsewhere);
       fs::create_directory_symlink(kElsewhere, kFolder);
       return true;
     },
     kNoFolder},
    {"a file in place of the folder",
     [] {
       fs::remove_all(kFolder);
       std::ofstream(kFolder) << "";
       return true;
     },
     kNoFolder},
    {"another user's folder above", [] { return GiveAway(kFolder.parent_path()); }, kNoFolder},
    {"a folder above that others may write into",
     [] { return chmod(kFolder.parent_path().c_str(), 0777) == 0; }, kNoFolder},
};

TEST_F(TicketTest, OnlyWhatAnIssuerLeavesIsATicket) {
  for (const auto& wrong : kWrong) {
    Issue(kText, kText + "\nc\0s\0"s);
    fs::permissions(kFolder, fs::perms{0755});
    EXPECT_NE(Ticket::Find(kText), std::nullopt);
    EXPECT_EQ(fs::status(kFolder).permissions(), fs::perms{0700});
    if (wrong.make()) {
      (void)log_.TakeLines();
      EXPECT_EQ(Ticket::Find(kText), std::nullopt) << wrong.what;
      EXPECT_THAT(log_.TakeLines(), ElementsAre(wrong.line)) << wrong.what;
    }
    fs::remove_all(kFolder.parent_path());
    fs::create_directories(kFolder);
    fs::permissions(kFolder.parent_path(), fs::perms{0755});
  }
  fs::create_directories(Ticket::kRemoteDeviceDirectory);
}

TEST_F(TicketTest, OfManyThatRaceForATicketExactlyOneConsumesIt) {
  constexpr int kTickets = 200;
  const auto text = [](int i) { return "racing-for-ticket-" + std::to_string(i); };
  for (int i = 0; i < kTickets; ++i) Issue(text(i), text(i) + "\nc\0s\0"s);
  std::atomic<int> won = 0;
  const auto race = [&won, &text] {
    for (int i = 0; i < kTickets; ++i) won += Ticket::Find(text(i)) && Ticket::Consume(text(i));
  };
  { const std::jthread racers[] = {std::jthread(race), std::jthread(race), std::jthread(race)}; }
  EXPECT_EQ(won, kTickets);
  EXPECT_TRUE(fs::is_empty(Ticket::kDirectory));
}

TEST_F(TicketTest, ReaperRemovesStaleTicketsOfBothKindsAndNothingElse) {
  const auto leave = [](const fs::path& path, int minutes) {
    std::ofstream(path) << "";
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(minutes));
    return path;
  };
  const fs::path directory = Ticket::kDirectory, remote = Ticket::kRemoteDeviceDirectory;
  const fs::path young = leave(directory / "rntkt-young", 9);
  const fs::path other = leave(directory / "other", 11);
  const std::vector<fs::path> stale = {directory / "rntkt-stale", remote / "rntkt-stale"};
  boost::asio::io_context io;
  auto reaper = std::make_shared<Ticket::Reaper>(io, std::chrono::milliseconds(1));
  for (const bool atStart : {true, false}) {
    for (const fs::path& path : stale) leave(path, 11);
    if (atStart) reaper->Start();
    while (!atStart && fs::exists(stale[1]) && io.run_one_for(std::chrono::seconds(10)) > 0) {
    }
    EXPECT_THAT(log_.TakeLines(),
                ElementsAre("6 [Ticket] Reaping stale ticket " + stale[0].string(),
                            "6 [Ticket] Reaping stale ticket " + stale[1].string()));
    EXPECT_TRUE(!fs::exists(stale[0]) && fs::exists(young) && fs::exists(other));
  }
  leave(stale[0], 11);
  reaper.reset();
  io.run();  // ends: nothing is waited for any more
  EXPECT_TRUE(fs::exists(stale[0]));

  fs::remove_all(remote);
  Ticket::ReapStaleTickets();
  EXPECT_EQ(log_.TakeLines().back(), "6 [Ticket] Failed to get remoteDevice ticket dir in reap.");
}

}  // namespace
