#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>
#include <string_view>

/// Asks the kernel (NETLINK_SOCK_DIAG, sock_diag(7)) which account owns the socket at the other end
/// of a TCP connection inside this host.
/// @param local, remote  the connection's addresses as this process sees them: AF_INET or AF_INET6,
///                       both the same
/// @return nothing when there is no such socket on this host, when no process holds it any more, or
///         when the kernel does not say
/// Callable from any thread; takes some microseconds.
std::optional<uid_t> OwnerOfOtherEnd(const sockaddr& local, const sockaddr& remote);

/// Asks the kernel, in the same way, which account has a name in the abstract namespace (unix(7))
/// bound. Of several sockets that have it, those that one accepted share it, this process's own
/// account's counts first.
/// @param name  without the NUL byte before it
/// @return nothing when nobody has it, or when the kernel does not say
/// Callable from any thread; takes time with the number of Unix sockets, some 10 microseconds for a
/// hundred.
std::optional<uid_t> OwnerOfAbstractName(std::string_view name);
