#include "transport/peer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>

namespace Orbi::Transport::PicoHttp {
namespace {

using boost::asio::ip::make_address;
using boost::asio::ip::tcp;

TEST(PeerTest, PartyIsTheAddressOrTheNetworkThatOneClientCanFill) {
  constexpr std::array<std::array<const char*, 3>, 4> kCases = {{
      {"192.0.2.7", "192.0.2.7", "192.0.2.7"},
      {"::ffff:192.0.2.7", "192.0.2.7", "192.0.2.7"},
      {"2001:db8:1:2:3:4:5:6", "2001:db8:1:2:3:4:5:6", "2001:db8:1:2::/64"},
      {"2001:db8:1:2::7", "2001:db8:1:2::7", "2001:db8:1:2::/64"},
  }};
  const tcp::endpoint local(make_address("198.51.100.1"), 1);
  for (const auto& [from, address, party] : kCases) {
    const auto found = PeerOfConnection(local, {make_address(from), 2}, getuid());
    EXPECT_EQ(found.peer.address, address);
    EXPECT_EQ(found.peer.party, party);
    EXPECT_FALSE(found.isFront);
  }
}

TEST(PeerTest, LocalAccountsAreToldApartByTheirSockets) {
  for (const char* const loopback : {"127.0.0.1", "::1"}) {
    boost::asio::io_context io;
    tcp::acceptor acceptor(io, {make_address(loopback), 0});
    tcp::socket client(io);
    client.connect(acceptor.local_endpoint());
    const tcp::socket server = acceptor.accept();

    const auto local = server.local_endpoint();
    const auto remote = server.remote_endpoint();
    const std::string account = "uid:" + std::to_string(getuid());
    const auto found = PeerOfConnection(local, remote, getuid());
    EXPECT_EQ(found.peer.party, account);
    EXPECT_EQ(found.peer.address, account + "@" + loopback);
    EXPECT_TRUE(found.isFront);
    EXPECT_FALSE(PeerOfConnection(local, remote, getuid() + 1).isFront);

    // The kernel tells a socket that nobody holds as root's.
    client.close();
    const auto orphan = PeerOfConnection(local, remote, 0);
    EXPECT_EQ(orphan.peer.address, loopback);
    EXPECT_FALSE(orphan.isFront);
  }
}

TEST(PeerTest, OnlyTheFrontNamesItsClients) {
  struct Case {
    std::vector<const char*> forwardedFor;
    const char* address;
  };
  const Case cases[] = {
      {{}, "uid:33@127.0.0.1"},
      {{"192.0.2.7"}, "192.0.2.7"},
      {{"root, 203.0.113.9 ,\t192.0.2.7 "}, "192.0.2.7"},
      {{"203.0.113.9", "192.0.2.7"}, "192.0.2.7"},
      {{"192.0.2.7:4711"}, "192.0.2.7"},
      {{"2001:db8::7"}, "2001:db8::7"},
      {{"[2001:db8::7]:4711"}, "2001:db8::7"},
      {{"192.0.2.7, nobody"}, "uid:33@127.0.0.1"},
      {{"192.0.2.7,"}, "uid:33@127.0.0.1"},
      {{"["}, "uid:33@127.0.0.1"},
      {{""}, "uid:33@127.0.0.1"},
  };
  for (const Case& c : cases) {
    std::vector<HeaderField> fields;
    for (const char* const value : c.forwardedFor) fields.push_back({"x-forwarded-for", value});
    RequestHead head;
    head.headers = fields;
    const Core::Peer socket{"uid:33@127.0.0.1", "uid:33"};
    EXPECT_EQ(PeerOfRequest({socket, true}, head).address, c.address);
    EXPECT_EQ(PeerOfRequest({socket, false}, head).address, socket.address);
  }
}

}  // namespace
}  // namespace Orbi::Transport::PicoHttp
