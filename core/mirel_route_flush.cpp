// Kernel route flush: one link dump over a netlink socket of its own, which lives only for the call, and a flap of every
// router link. Main thread.

#include "mirel_route_flush.h"

#include "mirel_best_route.h"
#include "mirel_router_table.h"
#include "mirel_trace.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <net/if.h>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel";

constexpr std::string_view ROUTER_LINK_MARK = "rt"; // in the name of every link that belongs to a router interface
constexpr size_t LINK_DUMP_READ_SIZE = 4096;

// The request is the header and one byte, the address family; its length says so, without padding.
struct LinkDumpRequest {
  nlmsghdr header;
  uint8_t family;
};
constexpr size_t LINK_DUMP_REQUEST_SIZE = 17;
static_assert(offsetof(LinkDumpRequest, family) + sizeof(uint8_t) == LINK_DUMP_REQUEST_SIZE);

struct LinkName {
  char text[IFNAMSIZ];
};

// The last name that the attributes give, empty if none.
LinkName linkName(NetlinkBytes attributes) {
  LinkName name{};
  for (const NetlinkAttr &attr : netlinkAttrs(attributes)) {
    if (attr.type == IFLA_IFNAME) {
      name = {};
      memcpy(name.text, attr.data.data(), std::min(attr.data.size(), sizeof name.text - 1));
    }
  }
  return name;
}

void newLinkHandle(const NetlinkMessage &message) {
  ifinfomsg info{};
  memcpy(&info, message.payload.data(), std::min(message.payload.size(), sizeof info));
  const LinkName name =
      message.payload.size() > sizeof info ? linkName(message.payload.subspan(sizeof info)) : LinkName{};
  if (name.text[0] == '\0') {
    MIREL_LOG(SEVERITY_ERROR, "Unable to get interface name for interface idx %d", info.ifi_index);
    return;
  }
  if (std::string_view(name.text).find(ROUTER_LINK_MARK) == std::string_view::npos || (info.ifi_flags & IFF_UP) == 0) {
    return;
  }
  if (mirelIntfFlap(name.text) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to flap the interface %s.", name.text);
  }
}

bool linkDumpSend(int sock) {
  LinkDumpRequest request{};
  request.header.nlmsg_len = LINK_DUMP_REQUEST_SIZE;
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = 1;
  request.header.nlmsg_pid = mirelPid;
  request.family = AF_INET;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  iovec bytes{.iov_base = &request, .iov_len = LINK_DUMP_REQUEST_SIZE};
  msghdr message{};
  message.msg_name = &kernel;
  message.msg_namelen = sizeof kernel;
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  ssize_t sent;
  do {
    sent = sendmsg(sock, &message, 0);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

void linkDumpRead(int sock) {
  alignas(nlmsghdr) std::array<std::byte, LINK_DUMP_READ_SIZE> buffer;
  bool ended = false;
  while (!ended) {
    sockaddr_nl sender{};
    iovec bytes{.iov_base = buffer.data(), .iov_len = buffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    const ssize_t received = recvmsg(sock, &message, 0);
    if (received > 0) {
      ended = mirelLinkDumpRead(NetlinkBytes(buffer).first(static_cast<size_t>(received)));
    }
  }
}

} // namespace

bool mirelLinkDumpRead(NetlinkBytes read) {
  bool ended = false;
  for (const NetlinkMessage &message : netlinkMessages(read)) {
    switch (message.type) {
    case NLMSG_DONE:
      ended = true; // what follows in this read still counts
      break;
    case RTM_NEWLINK:
      newLinkHandle(message);
      break;
    default:
      MIREL_LOG(SEVERITY_ERROR, "Some error in retreiving netlink RTM_NEWLINK message type %d, length %d", message.type,
                static_cast<int>(message.length));
      ended =
          ended || message.type == NLMSG_ERROR; // no end mark follows an error: waiting for one would block for ever
      break;
    }
  }
  return ended;
}

void mirelKernelRoutesFlush() {
  const UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!sock) {
    MIREL_LOG(SEVERITY_ERROR, "Netlink socket create failed!");
    return;
  }
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
    perror("bind");
    MIREL_LOG(SEVERITY_ERROR, "Netlink socket bind failed!");
    return;
  }
  if (!linkDumpSend(sock.get())) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Unable to send netlink message! - %s", strerror(error));
    return;
  }
  linkDumpRead(sock.get());
}
