// The whole main table, asked for when notifications were lost: a dump on a socket that lives only for the call. Listener's
// thread. RTO refuses what it knows already without a word, so every route may simply be passed on.

#include "netlink_attr.h"
#include "rto_netlink.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>

namespace {

// The most that the kernel puts into a datagram. It ends the table, as if it were complete, at a route that is too long for
// the buffer it is read into: one of 500 next hops for 8192 bytes.
constexpr size_t TABLE_RECEIVE_SIZE = 32768;
alignas(nlmsghdr) std::array<std::byte, TABLE_RECEIVE_SIZE> tableBuffer;

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

bool familyProcess(int sock, uint8_t family, uint32_t sequence) {
  if (!tableRequest(sock, family, sequence)) {
    return false;
  }
  for (;;) {
    const ssize_t received = recv(sock, tableBuffer.data(), tableBuffer.size(), 0);
    if (received < 0 && errno == EINTR) {
      continue;
    }
    if (received <= 0) {
      return false;
    }
    if (tableRead(NetlinkBytes(tableBuffer).first(static_cast<size_t>(received)), sequence)) {
      return true;
    }
  }
}

} // namespace

bool rtoMainTableProcess(RtoNetlinkHandle *handle) {
  const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!sock) {
    return false;
  }
  // Lets the kernel leave out the other tables; an older one sends them all.
  const int on = 1;
  setsockopt(sock.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  // The kernel learns the size of the buffer from the first read, too late for the first datagram. IPv4 goes second: its
  // table begins with the default route, which may be a long one.
  const bool ipv6 = familyProcess(sock.get(), AF_INET6, ++handle->sequence);
  const bool ipv4 = familyProcess(sock.get(), AF_INET, ++handle->sequence);
  return ipv4 && ipv6;
}
