// The ARP resolution socket, on which the switch tells what it has resolved, and the write into the kernel's ARP cache. The
// socket belongs to the main thread and lives as long as the process; the write may come from any thread.

#include "mirel_arp.h"

#include "mirel_router_table.h"
#include "mirel_trace.h"
#include "unique_fd.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <net/if_arp.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

Relaxed<int> arpIoctlSock = -1;

namespace {

// Clears away the socket that an earlier run left behind.
void folderMakeAnew() {
  char text[64];
  snprintf(text, sizeof text, "rm -rf /tmp/mirel-%02d", static_cast<int>(mirelVrfId));
  [[maybe_unused]] int ignored = system(text);
  snprintf(text, sizeof text, "/tmp/mirel-%02d", static_cast<int>(mirelVrfId));
  if (access(text, F_OK) != 0) {
    snprintf(text, sizeof text, "mkdir /tmp/mirel-%02d", static_cast<int>(mirelVrfId));
    ignored = system(text);
  }
}

bool deviceNameAsk(uint32_t ifIndex, ifreq &device) {
  device = {};
  device.ifr_ifindex = static_cast<int>(ifIndex);
  return ioctl(arpIoctlSock, SIOCGIFNAME, &device) == 0;
}

// The device of a kernel index or, failing that, of the switch's interface of that number, which must be in this kernel.
std::optional<ifreq> deviceFind(uint32_t index) {
  ifreq device;
  if (deviceNameAsk(index, device)) {
    return device;
  }
  char name[STK_IF_NAME_SIZE] = {};
  uint32_t ifIndex = 0;
  if (mirelStkIfNameGet(index, name) != 0 || osapiStackIfIndexGet(name, &ifIndex) != 0 ||
      !deviceNameAsk(ifIndex, device)) {
    return std::nullopt;
  }
  return device;
}

} // namespace

int mirelCreateArpSock(Relaxed<int> *sockFd) {
  constexpr const char *OPERATION = "mirelCreateArpSock";
  folderMakeAnew();
  UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    perror("socket");
    return 1;
  }
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  snprintf(local.sun_path, sizeof local.sun_path, "/tmp/mirel-%02d/arp-socket", static_cast<int>(mirelVrfId));
  if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
    perror("bind");
    MIREL_TRACE(TRACE_ARP, OPERATION, "server socket creation failed\n");
    return 1;
  }
  MIREL_TRACE(TRACE_ARP, OPERATION, "server socket creation successful\n");
  *sockFd = sock.release();
  return 0;
}

int mirelArpEvntHandle(const ArpResolutionMsg *msg) {
  constexpr const char *OPERATION = "mirelArpEvntHandle";
  if (msg->msgType != ARP_RESOLUTION) {
    MIREL_TRACE(TRACE_ARP, OPERATION, "Received message of the wrong type %d\n", msg->msgType);
    return 1;
  }
  if (msg->msgLen != ARP_RESOLUTION_LENGTH) {
    MIREL_TRACE(TRACE_ARP, OPERATION, "Received message has wrong length %d\n", msg->msgLen);
    return 1;
  }
  if (mirelVrfIdDiffers(msg->vrId) != 0) {
    MIREL_TRACE(TRACE_ARP, OPERATION, "Received ARP resolution for VRF ID %d in VRF %d\n\n", msg->vrId, mirelVrfId);
    return 1;
  }
  const uint8_t *mac = msg->macAddr;
  if (mirelKernelArpSet(msg->ipAddr, mac, msg->ifIndex) != 0) {
    MIREL_TRACE(TRACE_ARP, OPERATION,
                "Failed to update ARP in the Linux stack. Ipaddr %d, ifindex %d, vrId %d mac "
                "%02x:%02x:%02x:%02x:%02x:%02x\n\n",
                msg->ipAddr, msg->ifIndex, msg->vrId, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return 1;
  }
  MIREL_TRACE(TRACE_ARP, OPERATION,
              "Updated ARP in the Linux stack. Ipaddr %d, ifindex %d, vrId %d mac %02x:%02x:%02x:%02x:%02x:%02x\n\n",
              msg->ipAddr, msg->ifIndex, msg->vrId, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return 0;
}

int mirelKernelArpSet(uint32_t addr, const uint8_t *mac, uint32_t index) {
  std::optional<ifreq> device = deviceFind(index);
  if (!device) {
    return 1;
  }
  arpreq request{};
  static_assert(sizeof request.arp_dev == sizeof device->ifr_name);
  memcpy(request.arp_dev, device->ifr_name, sizeof request.arp_dev);
  // The kernel refuses a hardware address of another family than the device's own.
  if (ioctl(arpIoctlSock, SIOCGIFHWADDR, &*device) != 0) {
    return 1;
  }
  request.arp_ha.sa_family = device->ifr_hwaddr.sa_family;
  memcpy(request.arp_ha.sa_data, mac, MAC_LENGTH);
  sockaddr_in neighbour{};
  neighbour.sin_family = AF_INET;
  neighbour.sin_addr.s_addr = htonl(addr);
  memcpy(&request.arp_pa, &neighbour, sizeof neighbour);
  request.arp_flags = ATF_COM;
  return ioctl(arpIoctlSock, SIOCSARP, &request) == 0 ? 0 : 1;
}
