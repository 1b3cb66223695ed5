// Memberships of 224.0.0.2, all routers on the subnet, one for each enabled interface's device. One socket holds them all:
// the first join creates it, nothing is sent or received on it, and it is never closed. Main thread.

#include "mirel_router.h"

#include "kernel_setting.h"
#include "mirel_router_device.h"
#include "mirel_trace.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

constexpr uint32_t ALL_ROUTERS_GROUP = 0xE0000002; // host byte order

// The kernel allows 20 memberships a socket by default; every router interface needs one.
constexpr const char *MEMBERSHIPS_SETTING = "/proc/sys/net/ipv4/igmp_max_memberships";
constexpr unsigned MEMBERSHIPS_NEEDED = 1100;

int mcastSockFd = -1;

struct GroupText {
  char text[INET_ADDRSTRLEN];

  explicit GroupText(uint32_t group) {
    const auto byte = [group](int shift) { return static_cast<int>(group >> shift & 0xFF); };
    snprintf(text, sizeof text, "%d.%d.%d.%d", byte(24), byte(16), byte(8), byte(0));
  }
};

int groupJoin(const ip_mreqn &request, uint32_t intIfNum, const char *device) {
  const GroupText group(ALL_ROUTERS_GROUP);
  if (mcastSockFd == -1) {
    mcastSockFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (mcastSockFd == -1) {
      const int error = errno;
      MIREL_LOG(SEVERITY_ERROR, "Attempt to create socket to join multicast group %s failed (%s) on interface %d (%s).",
                group.text, strerror(error), intIfNum, device);
      return 1;
    }
    kernelSettingRaise(MEMBERSHIPS_SETTING, MEMBERSHIPS_NEEDED);
  }
  if (setsockopt(mcastSockFd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Attempt to join multicast group %s failed (%s) on interface %d (%s).", group.text,
              strerror(error), intIfNum, device);
    return 1;
  }
  return 0;
}

int groupLeave(const ip_mreqn &request, uint32_t intIfNum, const char *device) {
  if (mcastSockFd == -1) {
    return 0;
  }
  if (setsockopt(mcastSockFd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof request) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_INFO, "Attempt to drop multicast group %s failed with error %s on interface %d (%s).",
              GroupText(ALL_ROUTERS_GROUP).text, strerror(error), intIfNum, device);
    return 1;
  }
  return 0;
}

} // namespace

int mirelMcastGroupMembershipSet(uint32_t intIfNum, uint32_t join) {
  const InterfaceDevice device(intIfNum);
  if (!device.known) {
    return 1;
  }
  uint32_t ifIndex = 0; // stays 0, any interface, when the kernel does not know the device
  mirelStkIfIndexGet(intIfNum, &ifIndex);
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = htonl(ALL_ROUTERS_GROUP);
  request.imr_ifindex = static_cast<int>(ifIndex);
  return join != 0 ? groupJoin(request, intIfNum, device.name) : groupLeave(request, intIfNum, device.name);
}
