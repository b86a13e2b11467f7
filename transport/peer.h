#pragma once

#include <sys/types.h>

#include <optional>

#include <boost/asio/ip/tcp.hpp>

#include "orbi/core/peer.h"
#include "transport/http/request_head.h"

namespace Orbi::Transport::PicoHttp {

/// Who is at the other end of a connection, and whether that is the front: the local program that
/// takes the connections of others and passes on their requests.
struct ConnectionPeer {
  Core::Peer peer;
  bool isFront = false;
};

/// @param front  the account whose connections are the front's
[[nodiscard]] ConnectionPeer PeerOfConnection(const boost::asio::ip::tcp::endpoint& local,
                                              const boost::asio::ip::tcp::endpoint& remote,
                                              std::optional<uid_t> front);

/// Whose request it is: the peer's own, or that of the client which the front names in the last
/// entry of X-Forwarded-For. Nobody else's word is taken, and no earlier entry: those are the
/// client's own.
[[nodiscard]] Core::Peer PeerOfRequest(const ConnectionPeer& connection, const RequestHead& head);

}  // namespace Orbi::Transport::PicoHttp
