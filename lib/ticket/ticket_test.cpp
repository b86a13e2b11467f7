#include "lib/ticket/ticket.h"

#include <gmock/gmock.h>

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

TEST_F(TicketTest, OnlyARegularFileInAClosedDirectoryIsATicket) {
  const fs::path moved = "/var/run/tessel/moved/";
  const fs::path path = Issue(kText, kText + "\nc\0s\0"s);
  fs::permissions(path, fs::perms{0644});
  fs::permissions(Ticket::kDirectory, fs::perms{0777});
  EXPECT_NE(Ticket::Find(kText), std::nullopt);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms{0600});
  EXPECT_EQ(fs::status(Ticket::kDirectory).permissions(), fs::perms{0700});

  fs::rename(fs::path(Ticket::kDirectory).parent_path(), moved.parent_path());
  fs::create_directory_symlink(moved, fs::path(Ticket::kDirectory).parent_path());
  EXPECT_EQ(Ticket::Find(kText), std::nullopt) << "a link to a directory";
  fs::remove(fs::path(Ticket::kDirectory).parent_path());
  fs::create_directory(Ticket::kDirectory);
  fs::create_symlink(moved / path.filename(), path);
  EXPECT_EQ(Ticket::Find(kText), std::nullopt) << "a link to a ticket";
  fs::remove(path);
  EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(Ticket::Find(kText), std::nullopt) << "a FIFO";
  fs::remove_all(moved);
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
