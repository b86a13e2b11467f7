#include "tesselibs/socket_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>

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
