// The kernel's neighbours: entries that the kernel adds or drops are mirrored into the switch's ARP cache, and what the
// kernel asks user space to resolve is answered from there. Main thread. No neighbour is remembered: each message is handled
// on its own.

#include "mirel_arp.h"

#include "api_lock.h"
#include "kernel_setting.h"
#include "mirel_trace.h"
#include "netlink_filter.h"
#include "unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sys/socket.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_arp";

constexpr size_t RECEIVE_SIZE = 512;
using Mac = std::array<uint8_t, MAC_LENGTH>;
constexpr Mac BROADCAST_MAC = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

struct Threshold {
  const char *path;
  unsigned long entries;
};

// All entries that the kernel holds may go at once, with their link, and each announcement takes a kilobyte of the socket.
constexpr int RECEIVE_BUFFER = 4 << 20;

// The highest first: the kernel wants them in order at all times.
constexpr Threshold THRESHOLDS[] = {
    {"/proc/sys/net/ipv4/neigh/default/gc_thresh3", 2000},
    {"/proc/sys/net/ipv4/neigh/default/gc_thresh2", 1000},
    {"/proc/sys/net/ipv4/neigh/default/gc_thresh1", 250},
};

void thresholdsWrite() {
  for (const Threshold &threshold : THRESHOLDS) {
    char text[10];
    snprintf(text, sizeof text, "%lu", threshold.entries);
    mirelProcFileWrite(threshold.path, text);
  }
}

// Bound to the neighbour notifications.
UniqueFd neighbourSocketOpen() {
  UniqueFd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!sock) {
    perror("cannot open netlink socket");
    exit(EXIT_SUCCESS);
  }
  if (setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
    setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
  }
  netlinkOtherNeighboursDrop(sock.get());
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_NEIGH;
  if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
    perror("cannot bind netlink socket!");
    exit(EXIT_SUCCESS);
  }
  socklen_t length = sizeof local;
  if (getsockname(sock.get(), reinterpret_cast<sockaddr *>(&local), &length) != 0) {
    perror("unable to retrieve socket name");
    exit(EXIT_SUCCESS);
  }
  if (length != sizeof local || local.nl_family != AF_NETLINK) {
    exit(EXIT_SUCCESS);
  }
  return sock;
}

struct Neighbour {
  uint16_t type;
  ndmsg header;
  NetlinkBytes attributes;
};

InetAddr inetAddr(uint32_t addr) {
  InetAddr record{};
  record.family = TARN_FAMILY_IPV4;
  record.ipv4 = addr;
  return record;
}

tarn_buffdesc descriptor(Mac &mac) {
  return {.size = MAC_LENGTH, .pstart = reinterpret_cast<char *>(mac.data())};
}

std::optional<uint32_t> addressOf(const NetlinkAttr &attr) {
  uint32_t networkOrder;
  if (attr.type != NDA_DST || attr.data.size() < sizeof networkOrder) {
    return std::nullopt;
  }
  memcpy(&networkOrder, attr.data.data(), sizeof networkOrder);
  return ntohl(networkOrder);
}

std::optional<Mac> macOf(const NetlinkAttr &attr) {
  Mac mac;
  if (attr.type != NDA_LLADDR || attr.data.size() < mac.size()) {
    return std::nullopt;
  }
  memcpy(mac.data(), attr.data.data(), mac.size());
  return mac;
}

void headerTrace(const char *operation, const ndmsg &header) {
  MIREL_TRACE(TRACE_ARP, operation, "ndmsg attributes:\n");
  MIREL_TRACE(TRACE_ARP, operation, "ndm_family = %d\n", header.ndm_family);
  MIREL_TRACE(TRACE_ARP, operation, "ndm_ifindex = %d\n", header.ndm_ifindex);
  MIREL_TRACE(TRACE_ARP, operation, "state = 0x%x\n", header.ndm_state);
  MIREL_TRACE(TRACE_ARP, operation, "flags = 0x%x\n", header.ndm_flags);
}

constexpr const char *CHANGE_OPERATION = "process_neigh_add_del";

void entryAdd(const ndmsg &header, uint32_t addr, Mac mac) {
  const InetAddr record = inetAddr(addr);
  const tarn_buffdesc macBytes = descriptor(mac);
  switch (apiCall(rpcclt_tarnapiKernelArpAdd, mirelVrfId, &record, &macBytes, static_cast<uint32_t>(header.ndm_ifindex),
                  uint32_t{header.ndm_state})) {
  case TARN_OK:
    ++statsHandle.numKernelArpAddsProcessed;
    qvproc_logf(SEVERITY_INFO, COMPONENT_MIREL, LOG_AREA, __LINE__,
                "Kernel ARP entry is successfully added in to the ARP cache of VRF \"%s\".", mirelVrfName);
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "Kernel ARP entry is successfully added in to the ARP cache.\n");
    break;
  case TARN_EXISTS:
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION,
                "Failed to add Kernel ARP entry in to ARP cache as it is an existing entry.\n");
    break;
  case TARN_LOCAL_ADDR:
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION,
                "Failed to add Kernel ARP entry in to ARP cache as the address belongs to a local interface.\n");
    break;
  default:
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "Failed to add Kernel ARP entry in to ARP cache.\n");
    break;
  }
}

void entryDelete(const ndmsg &header, uint32_t addr) {
  const InetAddr record = inetAddr(addr);
  switch (apiCall(rpcclt_tarnapiKernelArpDelete, mirelVrfId, &record, static_cast<uint32_t>(header.ndm_ifindex))) {
  case TARN_OK:
    ++statsHandle.numKernelArpDelsProcessed;
    qvproc_logf(SEVERITY_INFO, COMPONENT_MIREL, LOG_AREA, __LINE__,
                "Kernel ARP entry is successfully deleted from ARP cache of VRF \"%s\".", mirelVrfName);
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "Kernel ARP entry is successfully deleted from ARP cache.\n");
    break;
  case TARN_NOT_FOUND:
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION,
                "Failed to delete Kernel ARP entry from ARP cache as the entry does not exist.\n");
    break;
  case TARN_NOT_YET: // not a kernel entry
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION,
                "Failed to delete Kernel ARP entry from ARP cache as it is not a kernel entry.\n");
    break;
  default:
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "Failed to delete Kernel ARP entry from ARP cache.\n");
    break;
  }
}

// The gateways of the switch's own ports, which are never mirrored; 0 = unknown.
struct Gateways {
  InetAddr service{};
  InetAddr network{};

  Gateways() {
    const ApiLock lock;
    rpcclt_tarnapiServicePortGatewayIPv4AddrGet(tarnapiClientHandle, &service);
    rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet(tarnapiClientHandle, &network);
  }
  bool contain(uint32_t addr) const { return addr != 0 && (addr == service.ipv4 || addr == network.ipv4); }
};

// What the attributes say of a new or dropped neighbour. ignored: of a gateway, or with the broadcast address.
struct NeighbourChange {
  std::optional<uint32_t> addr;
  std::optional<Mac> mac;
  bool ignored = false;
};

// The walk ends where the change is known: a new entry has both attributes, a dropped one its address.
NeighbourChange changeRead(const Neighbour &neighbour, const Gateways &gateways) {
  NeighbourChange change;
  for (const NetlinkAttr &attr : netlinkAttrs(neighbour.attributes)) {
    if (const auto addr = addressOf(attr)) {
      if (gateways.contain(*addr)) {
        change.ignored = true;
        return change;
      }
      change.addr = addr;
      MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "found ip address 0x%x\n", *addr);
    } else if (const auto mac = macOf(attr)) {
      change.mac = mac;
      MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "found MAC address %2x:%2x:%2x:%2x:%2x:%2x\n", (*mac)[0], (*mac)[1],
                  (*mac)[2], (*mac)[3], (*mac)[4], (*mac)[5]);
      if (*mac == BROADCAST_MAC) {
        qvproc_logf(SEVERITY_NOTICE, COMPONENT_MIREL, LOG_AREA, __LINE__,
                    "Ignoring the kernel ARP entry added with broadcat MAC in VRF \"%s\".", mirelVrfName);
        change.ignored = true;
        return change;
      }
    }
    if (change.addr && (change.mac || neighbour.type == RTM_DELNEIGH)) {
      break;
    }
  }
  return change;
}

void process_neigh_add_del(const Neighbour &neighbour) {
  if (neighbour.header.ndm_family != AF_INET) {
    return;
  }
  const bool isNew = neighbour.type == RTM_NEWNEIGH;
  if (isNew) {
    ++statsHandle.numKernelArpAddsRcvd;
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "RTM_NEWNEIGH\n");
  } else {
    ++statsHandle.numKernelArpDelsRcvd;
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "RTM_DELNEIGH\n");
  }
  headerTrace(CHANGE_OPERATION, neighbour.header);
  const NeighbourChange change = changeRead(neighbour, Gateways());
  if (change.ignored) {
    return;
  }
  if (!change.addr) {
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "found no destination ip address attribute.\n");
    return;
  }
  if (!isNew || neighbour.header.ndm_state == NUD_FAILED) {
    entryDelete(neighbour.header, *change.addr);
    return;
  }
  if (!change.mac) {
    MIREL_TRACE(TRACE_ARP, CHANGE_OPERATION, "found no destination mac address attribute.\n");
    return;
  }
  entryAdd(neighbour.header, *change.addr, *change.mac);
}

std::optional<uint32_t> firstAddress(NetlinkBytes attributes) {
  for (const NetlinkAttr &attr : netlinkAttrs(attributes)) {
    if (const auto addr = addressOf(attr)) {
      return addr;
    }
  }
  return std::nullopt;
}

void process_getneigh_request(const Neighbour &neighbour) {
  constexpr const char *OPERATION = "process_getneigh_request";
  if (neighbour.header.ndm_family != AF_INET) {
    return;
  }
  headerTrace(OPERATION, neighbour.header);
  const std::optional<uint32_t> addr = firstAddress(neighbour.attributes);
  if (!addr) {
    MIREL_TRACE(TRACE_ARP, OPERATION, "found no destination ip address attribute.\n");
    ++statsHandle.numArpReqErrors;
    return;
  }
  MIREL_TRACE(TRACE_ARP, OPERATION, "found ip address 0x%x\n", *addr);
  ++statsHandle.numArpReqs;
  const auto ifIndex = static_cast<uint32_t>(neighbour.header.ndm_ifindex);
  const InetAddr record = inetAddr(*addr);
  Mac mac{};
  const tarn_buffdesc macBytes = descriptor(mac);
  const int32_t status = apiCall(rpcclt_tarnapiArpResolve, mirelVrfId, &record, &macBytes, *addr, ifIndex, uint32_t{0});
  if (status == TARN_NOT_FOUND) {
    ++statsHandle.numArpReqErrors;
    MIREL_TRACE(TRACE_ARP, OPERATION, "Failed to get interface number for IP Addr %x\n", *addr);
    return;
  }
  if (status != TARN_OK) {
    return;
  }
  MIREL_TRACE(TRACE_ARP, OPERATION,
              "ARP resolution successful for ipaddr %d mac %02x:%02x:%02x:%02x:%02x:%02x ifindex %d\n", *addr, mac[0],
              mac[1], mac[2], mac[3], mac[4], mac[5], ifIndex);
  mirelKernelArpSet(*addr, mac.data(), ifIndex);
  ++statsHandle.numArpResolves;
}

} // namespace

int mirelArpNetlinkInit(Relaxed<int> *sockFd) {
  constexpr const char *OPERATION = "mirelArpNetlinkInit";
  MIREL_TRACE(TRACE_ARP, OPERATION, "Setting up ARP netlink socket in Mirel.\n");
  thresholdsWrite();
  arpIoctlSock = -1;
  UniqueFd neighbours = neighbourSocketOpen();
  UniqueFd requests(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!requests) {
    perror("socket open on ioctl socket failed");
    exit(EXIT_SUCCESS);
  }
  arpIoctlSock = requests.release();
  MIREL_TRACE(TRACE_ARP, OPERATION, "Netlink socket for ARP request has ben successfully setup.\n");
  *sockFd = neighbours.release();
  return 0;
}

int mirelArpNetlinkEvntHandle() {
  alignas(nlmsghdr) std::array<std::byte, RECEIVE_SIZE> buffer;
  sockaddr_nl sender{};
  iovec bytes{.iov_base = buffer.data(), .iov_len = buffer.size()};
  msghdr message{};
  message.msg_name = &sender;
  message.msg_namelen = sizeof sender;
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  ssize_t received;
  do {
    received = recvmsg(arpd_nl_fd, &message, MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    ++statsHandle.numArpReqErrors;
    return 0;
  }
  mirelNeighbourDatagramProcess(NetlinkBytes(buffer).first(static_cast<size_t>(received)));
  return 0;
}

void mirelNeighbourDatagramProcess(NetlinkBytes datagram) {
  nlmsghdr header;
  if (datagram.size() < sizeof header) {
    return;
  }
  memcpy(&header, datagram.data(), sizeof header);
  if (header.nlmsg_flags != 0 && (header.nlmsg_flags & NLM_F_REQUEST) == 0) {
    return;
  }
  const NetlinkBytes message = datagram.first(std::min<size_t>(header.nlmsg_len, datagram.size()));
  if (message.size() < sizeof header + sizeof(ndmsg)) {
    return;
  }
  Neighbour neighbour{.type = header.nlmsg_type, .header = {}, .attributes = {}};
  memcpy(&neighbour.header, message.data() + sizeof header, sizeof neighbour.header);
  neighbour.attributes = message.subspan(sizeof header + sizeof neighbour.header);
  switch (neighbour.type) {
  case RTM_NEWNEIGH:
  case RTM_DELNEIGH:
    process_neigh_add_del(neighbour);
    break;
  case RTM_GETNEIGH:
    process_getneigh_request(neighbour);
    break;
  default:
    break;
  }
}
