#include "transport/peer.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v6.hpp>

#include "tesselibs/socket_owner.h"

namespace Orbi::Transport::PicoHttp {
namespace {

using boost::asio::ip::address;

Core::Peer PeerOfAddress(address from) {
  if (from.is_v6() && from.to_v6().is_v4_mapped())
    from = make_address_v4(boost::asio::ip::v4_mapped, from.to_v6());
  if (from.is_v4()) return {from.to_string(), from.to_string()};
  constexpr unsigned short kSubnet = 64;  // what one client is given (RFC 4291, section 2.5.4)
  const boost::asio::ip::network_v6 network(from.to_v6(), kSubnet);
  return {from.to_string(), network.canonical().to_string()};
}

/// @param entry  of X-Forwarded-For: an address, an IPv6 one perhaps in brackets, perhaps with a
/// port
std::optional<address> AddressIn(std::string_view entry) {
  constexpr std::string_view kBlanks = " \t";
  entry.remove_prefix(std::min(entry.find_first_not_of(kBlanks), entry.size()));
  entry = entry.substr(0, entry.find_last_not_of(kBlanks) + 1);
  if (entry.starts_with('[')) {
    entry = entry.substr(1, entry.find(']') - 1);
  } else if (std::ranges::count(entry, ':') == 1) {
    entry = entry.substr(0, entry.find(':'));
  }
  boost::system::error_code malformed;
  const address found = boost::asio::ip::make_address(std::string(entry), malformed);
  if (malformed) return std::nullopt;
  return found;
}

std::optional<address> ForwardedFor(const RequestHead& head) {
  std::optional<std::string_view> last;
  for (const auto& [name, value] : head.headers) {
    if (name == "x-forwarded-for") last = value;
  }
  if (!last) return std::nullopt;
  return AddressIn(last->substr(last->rfind(',') + 1));  // npos + 1 is the beginning
}

}  // namespace

ConnectionPeer PeerOfConnection(const boost::asio::ip::tcp::endpoint& local,
                                const boost::asio::ip::tcp::endpoint& remote,
                                std::optional<uid_t> front) {
  Core::Peer peer = PeerOfAddress(remote.address());
  if (!remote.address().is_loopback() && remote.address() != local.address()) return {peer, false};
  const auto owner = OwnerOfOtherEnd(*local.data(), *remote.data());
  if (!owner) return {peer, false};
  const std::string account = "uid:" + std::to_string(*owner);
  return {{account + "@" + peer.address, account}, owner == front};
}

Core::Peer PeerOfRequest(const ConnectionPeer& connection, const RequestHead& head) {
  if (!connection.isFront) return connection.peer;
  const auto client = ForwardedFor(head);
  return client ? PeerOfAddress(*client) : connection.peer;
}

}  // namespace Orbi::Transport::PicoHttp
