// Enable and disable of a router interface: its kernel device takes on the switch's addresses, MAC, MTU and ICMP settings,
// or is taken down and stripped. Main thread. The kernel and the interface table are the only state, so an enable of a
// device that is configured already repeats every step.

#include "mirel_router.h"

#include "api_lock.h"
#include "mirel_intf_best_route.h"
#include "mirel_router_device.h"
#include "mirel_router_event.h"
#include "mirel_trace.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";
constexpr const char *ENABLE = "mirelRtrEnableHandler"; // the operation in the traces of an enable and its steps

constexpr size_t MAC_SIZE = 6;
constexpr uint32_t MASK_POINT_TO_POINT = 0xFFFFFFFE; // a /31 has no broadcast address of its own

enum : uint32_t { FLAG_CLEAR = 0, FLAG_SET = 1 };
enum : uint32_t { GROUP_LEAVE = 0, GROUP_JOIN = 1 };

// The steps of an enable return false after logging what failed, which ends the enable there.

bool primaryAddressSet(uint32_t intIfNum, const char *device) {
  InetPrefix prefix{};
  if (apiCall(rpcclt_tarnapiRtrIntfIpAddrGet, TARN_FAMILY_IPV4, intIfNum, &prefix) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the IP address info of the interface %d (%s).", intIfNum, device);
    return false;
  }
  const uint32_t addr = prefix.addr.ipv4;
  const uint32_t mask = interfaceMask(prefix.prefixLen);
  const uint32_t broadcast = mask == MASK_POINT_TO_POINT ? UINT32_MAX : broadcastOf(addr, mask);
  if (procOsapiNetlinkIPv4Add(device, addr, mask, broadcast, &routeNetlinkSock) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR,
              "Failed to set the IP address (%x), mask (%x) and broadcast address (%x) on the interface %d. "
              "error:%d (%s)",
              addr, mask, broadcast, intIfNum, error, strerror(error));
    return false;
  }
  return true;
}

bool routerMacRead(uint32_t intIfNum, uint8_t (&mac)[MAC_SIZE]) {
  const tarn_buffdesc descriptor{.size = sizeof mac, .pstart = reinterpret_cast<char *>(mac)};
  if (apiCall(rpcclt_tarnapiRtrIntfL3MacAddressGet, intIfNum, &descriptor) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the L3 MAC address of the interface %d.", intIfNum);
    return false;
  }
  return true;
}

bool deviceUp(uint32_t intIfNum, const char *device, const uint8_t (&mac)[MAC_SIZE]) {
  if (osapiIfMacSet(device, mac) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the L3 MAC hardware on the interface %d. error:%d (%s)", intIfNum, error,
              strerror(error));
    return false;
  }
  if (osapiIfFlagChange(device, IFF_UP, FLAG_SET) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the IFF_UP flag on the interface %d. error:%d (%s)", intIfNum, error,
              strerror(error));
    return false;
  }
  if (osapiIfArpSet(device) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to setup ARP on the interface %d. error:%d (%s)", intIfNum, error,
              strerror(error));
    return false;
  }
  return true;
}

bool icmpModesSet(uint32_t intIfNum, const char *device) {
  uint32_t mode = 0;
  if (apiCall(rpcclt_tarnapiRtrICMPUnreachablesModeGet, intIfNum, &mode) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the ICMP unreachables mode of the interface %d.", intIfNum);
    return false;
  }
  if (osapiIfIpv4IcmpSendDestinationUnreachableSet(device, mode) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP unreachables mode (%x) on the interface %d. error:%d (%s)", mode,
              intIfNum, error, strerror(error));
    return false;
  }
  mode = 0;
  if (apiCall(rpcclt_tarnapiRtrICMPRedirectsModeGet, intIfNum, &mode) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the ICMP redirects mode of the interface %d.", intIfNum);
    return false;
  }
  if (osapiIfIpv4IcmpRedirectSendSet(device, mode) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP redirects mode (%x) on the interface %d. error:%d (%s)", mode,
              intIfNum, error, strerror(error));
    return false;
  }
  return true;
}

// Detects a walk that repeats its entries and would not end. Compares each entry with the one before it, and with a mark that
// moves to the present entry after 1, 2, 4, 8 ... entries, which finds longer circles without storing them.
class WalkCircle {
public:
  bool closes(uint64_t entry) {
    const bool closed = entry == last_ || entry == mark_;
    last_ = entry;
    if (++steps_ == span_) {
      mark_ = entry;
      steps_ = 0;
      span_ *= 2;
    }
    return closed;
  }

private:
  uint64_t last_ = 0; // the start of every walk
  uint64_t mark_ = 0;
  uint32_t steps_ = 0;
  uint32_t span_ = 1;
};

// What a walk of the secondary addresses met; logged when the semaphore has been given back.
struct SecondaryWalk {
  int32_t platformStatus; // TARN_NO_MORE at the end of the walk
  int kernelError;        // errno of an address that the kernel refused, 0 = none
  uint32_t addr;
  uint32_t mask;
  uint32_t broadcast;
};

SecondaryWalk secondaryAddressesWalk(uint32_t intIfNum, const char *device) {
  SecondaryWalk walk{};
  InetPrefix prefix{};
  uint32_t index = 0;
  WalkCircle circle;
  const ApiLock lock; // once, over the kernel's calls too: the switch's list must not change under the walk
  for (;;) {
    walk.platformStatus =
        rpcclt_tarnapiRtrIntfSecIpAddrGet(tarnapiClientHandle, TARN_FAMILY_IPV4, intIfNum, &prefix, &index);
    if (walk.platformStatus != TARN_OK) {
      return walk;
    }
    if (circle.closes(uint64_t{prefix.addr.ipv4} << 32 | prefix.prefixLen)) {
      walk.platformStatus = TARN_FAILURE;
      return walk;
    }
    walk.addr = prefix.addr.ipv4;
    walk.mask = interfaceMask(prefix.prefixLen);
    walk.broadcast = broadcastOf(walk.addr, walk.mask);
    const AddressLabel label(device, index);
    if (procOsapiNetlinkIPv4Add(label.text, walk.addr, walk.mask, walk.broadcast, &routeNetlinkSock) != 0) {
      walk.kernelError = errno;
      return walk;
    }
  }
}

bool secondaryAddressesSet(uint32_t intIfNum, const char *device) {
  const SecondaryWalk walk = secondaryAddressesWalk(intIfNum, device);
  if (walk.platformStatus == TARN_NO_MORE) {
    return true;
  }
  if (walk.platformStatus != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "ERROR in configuring secondary IP address on the interface %d. error:%d", intIfNum,
              walk.platformStatus);
    return false;
  }
  MIREL_LOG(SEVERITY_ERROR,
            "Failed to set the secondary IP address (%x), mask (%x) and broadcast address (%x) on the interface %d. "
            "error:%d (%s)",
            walk.addr, walk.mask, walk.broadcast, intIfNum, walk.kernelError, strerror(walk.kernelError));
  return false;
}

bool deviceConfigure(uint32_t intIfNum) {
  const InterfaceDevice device(intIfNum);
  uint8_t mac[MAC_SIZE] = {};
  if (!device.known || !routerMacRead(intIfNum, mac) || !primaryAddressSet(intIfNum, device.name) ||
      !deviceUp(intIfNum, device.name, mac)) {
    return false;
  }
  if (mirelMcastGroupMembershipSet(intIfNum, GROUP_JOIN) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to add multicast group membership on the interface %d.", intIfNum);
  }
  return interfaceMtuApply(intIfNum, device.name) == 0 && icmpModesSet(intIfNum, device.name) &&
         secondaryAddressesSet(intIfNum, device.name);
}

// The name is read for the trace alone.
void replayTrace(uint32_t intIfNum) {
  constexpr const char *OPERATION = "mirelPopulateRoutingInterfaceTable";
  if (!TRACE_GENERAL.on()) {
    return;
  }
  char name[INTF_NAME_LENGTH + 1] = {};
  const tarn_buffdesc descriptor{.size = INTF_NAME_LENGTH, .pstart = name};
  const int32_t status = apiCall(rpcclt_tarnapiRtrIntfNameGet, intIfNum, &descriptor);
  if (status != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get name for interface %d. Error %d", intIfNum, status);
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Pulled interface %s with interface number %x\n", name, intIfNum);
}

} // namespace

int mirelRtrEnableHandler(const RppiEventMsg *msg) {
  const uint32_t intIfNum = msg->intIfNum;
  MIREL_TRACE(TRACE_GENERAL, ENABLE, "Entering... for interface %d\n", intIfNum);
  if (intIfNum != 0 && mirelIntfParmsPopulate(intIfNum) != 0) {
    MIREL_TRACE(TRACE_GENERAL, ENABLE, "Failed to populate interface params from Tarn for intIfNum - %d\n", intIfNum);
  }
  if (mirelVrfId == 0) {
    MIREL_TRACE(TRACE_GENERAL, ENABLE, "skipping for default VRF.\n");
    return 0;
  }
  if (!deviceConfigure(intIfNum)) {
    return 1;
  }
  MIREL_TRACE(TRACE_GENERAL, ENABLE, "Successfully handled %s router event for the interface %d\n",
              mirelRouterEventNameGet(msg->msgType), intIfNum);
  return 0;
}

int mirelRtrIntfEnableHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrIntfEnableHandler";
  const uint32_t intIfNum = msg->intIfNum;
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering... for interface %d\n", intIfNum);
  const InterfaceDevice device(intIfNum);
  if (!device.known) {
    return 1;
  }
  const IntfBestRouteCursor fromTheStart{.intIfNum = intIfNum, .prefix = 0, .prefixLen = 0};
  mirelIntfBestRoutesAdd(&fromTheStart);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled %s router event for the interface %s (%d)\n",
              mirelRouterEventNameGet(msg->msgType), device.name, intIfNum);
  return 0;
}

int mirelRtrDisableHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrDisableHandler";
  const uint32_t intIfNum = msg->intIfNum;
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering... for interface %d\n", intIfNum);
  if (intIfNum != 0) {
    mirelIntIfInfoClear(intIfNum);
  }
  if (mirelVrfId == 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "skipping for default VRF.\n");
    return 0;
  }
  const InterfaceDevice device(intIfNum);
  if (!device.known) {
    return 1;
  }
  if (mirelMcastGroupMembershipSet(intIfNum, GROUP_LEAVE) != 0) {
    MIREL_LOG(SEVERITY_INFO, "Failed to drop multicast group membership on the interface %d.", intIfNum);
  }
  if (osapiIfFlagChange(device.name, IFF_UP, FLAG_CLEAR) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to reset the IFF_UP flag on the interface %d. error:%d (%s)", intIfNum, error,
              strerror(error));
    return 1;
  }
  if (osapiIfAddrDel(device.name) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to delete the IP address on the interface %d. error:%d (%s)", intIfNum, error,
              strerror(error));
    return 1;
  }
  deleteNodeIntfBestRoute(static_cast<int32_t>(intIfNum));
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled %s router event for the interface %d\n",
              mirelRouterEventNameGet(msg->msgType), intIfNum);
  return 0;
}

void mirelPopulateRoutingInterfaceTable() {
  constexpr const char *OPERATION = "mirelPopulateRoutingInterfaceTable";
  uint32_t intIfNum = 0;
  WalkCircle circle;
  while (apiCall(rpcclt_tarnapiRtrIntfNextGetVrf, mirelVrfId, intIfNum, &intIfNum) == TARN_OK) {
    if (circle.closes(intIfNum)) {
      MIREL_LOG(SEVERITY_ERROR, "The walk of the interfaces ends because the switch repeats interface %d", intIfNum);
      return;
    }
    RppiEventMsg msg{};
    msg.msgType = TARNR_RTR_INTF_ENABLE_PENDING;
    msg.intIfNum = intIfNum;
    const char *eventName = mirelRouterEventNameGet(msg.msgType);
    if (mirelRtrEnableHandler(&msg) != 0) {
      MIREL_LOG(SEVERITY_ERROR, "Failed to trigger %s router event for the interface %d", eventName, intIfNum);
    } else {
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully triggered %s router event\n", eventName);
    }
    replayTrace(intIfNum);
  }
}
