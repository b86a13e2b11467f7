#pragma once

#include <string>

namespace Orbi::Core {

/// Who is at the other end of a connection.
struct Peer {
  /// For people: "192.0.2.7", "2001:db8::1", or "uid:1001@127.0.0.1" for an account of this host.
  std::string address;
  /// What shares one part of a resource, and one count of failures: an IPv4 address, the /64
  /// network of an IPv6 address, which one client can fill, or "uid:1001" for an account of this
  /// host, where all have one address.
  std::string party;
};

}  // namespace Orbi::Core
