#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>

/// Asks the kernel (NETLINK_SOCK_DIAG, sock_diag(7)) which account owns the socket at the other end
/// of a TCP connection inside this host.
/// @param local, remote  the connection's addresses as this process sees them: AF_INET or AF_INET6,
///                       both the same
/// @return nothing when there is no such socket on this host, when no process holds it any more, or
///         when the kernel does not say
/// Callable from any thread; takes some microseconds.
std::optional<uid_t> OwnerOfOtherEnd(const sockaddr& local, const sockaddr& remote);
