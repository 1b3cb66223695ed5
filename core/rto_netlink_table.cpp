// The whole main table, asked for when notifications were lost: a dump on a socket that lives only for the call. Listener's
// thread. RTO refuses what it knows already without a word, so every route may simply be passed on.

#include "netlink_attr.h"
#include "rto_netlink.h"
#include "unique_fd.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

struct TableRequest {
  nlmsghdr header;
  rtmsg route;
};

bool tableRequest(int sock, uint8_t family, uint32_t sequence) {
  TableRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = sequence;
  request.route.rtm_family = family;
  request.route.rtm_table = RT_TABLE_MAIN;
  ssize_t sent;
  do {
    sent = send(sock, &request, sizeof request, 0);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

// Returns whether the dump has ended. An error ends it too, and is no reason to ask again: a kernel without IPv6, or
// without a route in its main table yet, answers so every time.
bool tableRead(NetlinkBytes read, uint32_t sequence) {
  for (const NetlinkMessage &message : netlinkMessages(read)) {
    if (message.seq != sequence) {
      continue;
    }
    if (message.type == NLMSG_DONE || message.type == NLMSG_ERROR) {
      return true;
    }
    rtmsg header;
    if (message.type == RTM_NEWROUTE && rtoRouteIsForeign(message, &header)) {
      rtoExternalRouteProcess(message, RT_NETLINK_ADD, QV_WAIT_FOREVER);
    }
  }
  return false;
}

bool familyProcess(int sock, uint8_t family, uint32_t sequence, std::span<std::byte> buffer) {
  if (!tableRequest(sock, family, sequence)) {
    return false;
  }
  for (;;) {
    const ssize_t received = recv(sock, buffer.data(), buffer.size(), 0);
    if (received < 0 && errno == EINTR) {
      continue;
    }
    if (received <= 0) {
      return false;
    }
    if (tableRead(buffer.first(static_cast<size_t>(received)), sequence)) {
      return true;
    }
  }
}

} // namespace

bool rtoMainTableProcess(RtoNetlinkHandle *handle, std::span<std::byte> buffer) {
  const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!sock) {
    return false;
  }
  // Lets the kernel leave out the other tables; an older one sends them all.
  const int on = 1;
  setsockopt(sock.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  const bool ipv4 = familyProcess(sock.get(), AF_INET, ++handle->sequence, buffer);
  const bool ipv6 = familyProcess(sock.get(), AF_INET6, ++handle->sequence, buffer);
  return ipv4 && ipv6;
}
