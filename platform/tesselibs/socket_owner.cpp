#include "tesselibs/socket_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>

#include "tesselibs/unique_fd.h"

namespace {

struct Query {
  nlmsghdr header;
  inet_diag_req_v2 request;
};

struct Answer {
  nlmsghdr header;
  inet_diag_msg socket;
};

/// Puts address and port, which both stay in network byte order, where the kernel wants them.
bool Fill(const sockaddr& from, __be32 (&address)[4], __be16& port) {
  if (from.sa_family == AF_INET) {
    sockaddr_in in;
    std::memcpy(&in, &from, sizeof in);
    std::memcpy(address, &in.sin_addr, sizeof in.sin_addr);
    port = in.sin_port;
    return true;
  }
  if (from.sa_family != AF_INET6) return false;
  sockaddr_in6 in6;
  std::memcpy(&in6, &from, sizeof in6);
  std::memcpy(address, &in6.sin6_addr, sizeof in6.sin6_addr);
  port = in6.sin6_port;
  return true;
}

struct UnixQuery {
  nlmsghdr header;
  unix_diag_req request;
};

/// The account of a socket of the kernel's list that has a name and is held by a process: those
/// that wait to be accepted are held by none, and told as root's.
std::optional<uid_t> OwnerIfNamed(const nlmsghdr& message, std::string_view name) {
  const auto* const socket = static_cast<const unix_diag_msg*>(NLMSG_DATA(&message));
  if (message.nlmsg_len < NLMSG_LENGTH(sizeof *socket) || socket->udiag_ino == 0)
    return std::nullopt;
  std::optional<uid_t> owner;
  bool named = false;
  const auto* attribute = reinterpret_cast<const rtattr*>(reinterpret_cast<const char*>(socket) +
                                                          NLMSG_ALIGN(sizeof *socket));
  auto left = static_cast<int>(message.nlmsg_len - NLMSG_LENGTH(sizeof *socket));
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    const std::string_view value(static_cast<const char*>(RTA_DATA(attribute)),
                                 RTA_PAYLOAD(attribute));
    if (attribute->rta_type == UNIX_DIAG_NAME) {
      named = value.size() == name.size() + 1 && value.front() == '\0' && value.ends_with(name);
    } else if (attribute->rta_type == UNIX_DIAG_UID && value.size() == sizeof(uid_t)) {
      std::memcpy(&owner.emplace(), value.data(), sizeof(uid_t));
    }
  }
  return named ? owner : std::nullopt;
}

}  // namespace

std::optional<uid_t> OwnerOfOtherEnd(const sockaddr& local, const sockaddr& remote) {
  Query query = {};
  query.header.nlmsg_len = sizeof query;
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST;
  query.request.sdiag_family = static_cast<__u8>(remote.sa_family);
  query.request.sdiag_protocol = IPPROTO_TCP;
  query.request.idiag_states = ~0U;
  auto& id = query.request.id;
  id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  // The other end's source is what is remote here.
  if (!Fill(remote, id.idiag_src, id.idiag_sport) || !Fill(local, id.idiag_dst, id.idiag_dport))
    return std::nullopt;

  const UniqueFd netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!netlink) return std::nullopt;
  if (send(netlink.Get(), &query, sizeof query, 0) != ssize_t{sizeof query}) return std::nullopt;
  Answer answer = {};
  // The kernel answers before send returns.
  const ssize_t count = recv(netlink.Get(), &answer, sizeof answer, MSG_DONTWAIT);
  if (count < ssize_t{sizeof answer} || answer.header.nlmsg_type != SOCK_DIAG_BY_FAMILY)
    return std::nullopt;
  // A socket that no process holds is told as root's.
  if (answer.socket.idiag_inode == 0) return std::nullopt;
  return answer.socket.idiag_uid;
}

std::optional<uid_t> OwnerOfAbstractName(std::string_view name) {
  UnixQuery query = {};
  query.header.nlmsg_len = sizeof query;
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  query.request.sdiag_family = AF_UNIX;
  query.request.udiag_states = ~0U;
  query.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_UID;
  const UniqueFd netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!netlink) return std::nullopt;
  if (send(netlink.Get(), &query, sizeof query, 0) != ssize_t{sizeof query}) return std::nullopt;
  std::optional<uid_t> owner;
  alignas(nlmsghdr) std::array<char, 32768> buffer;
  for (;;) {
    const ssize_t count = recv(netlink.Get(), buffer.data(), buffer.size(), 0);
    if (count <= 0) return std::nullopt;
    const auto size = static_cast<std::size_t>(count);
    for (std::size_t at = 0; at + sizeof(nlmsghdr) <= size;) {
      const auto& message = *reinterpret_cast<const nlmsghdr*>(buffer.data() + at);
      if (message.nlmsg_type == NLMSG_DONE) return owner;
      if (message.nlmsg_type != SOCK_DIAG_BY_FAMILY || message.nlmsg_len < sizeof message ||
          message.nlmsg_len > size - at) {
        return std::nullopt;
      }
      const auto found = OwnerIfNamed(message, name);
      if (found && owner != geteuid()) owner = found;
      at += NLMSG_ALIGN(message.nlmsg_len);
    }
  }
}
