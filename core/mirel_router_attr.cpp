// Changes of single attributes of an interface or of the VRF: the new value is read from the switch and written into the
// kernel. Main thread. Only address and host mode leave the default VRF alone.

#include "mirel_router.h"

#include "api_lock.h"
#include "mirel_router_device.h"
#include "mirel_router_event.h"
#include "mirel_trace.h"

#include <cerrno>
#include <cstring>
#include <iterator>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

enum InterfaceType : uint32_t { INTF_TYPE_LOOPBACK = 4, INTF_TYPE_TUNNEL = 5, INTF_TYPE_PRESET = 7 };

constexpr uint32_t OPERATION_ADD = 1; // of addrOp and vrrpOp; any other value removes
constexpr uint32_t GROUP_LEAVE = 0;
constexpr uint32_t NO_BROADCAST = 0;

void enteringTrace(const char *operation, const RppiEventMsg &msg) {
  MIREL_TRACE(TRACE_GENERAL, operation, "Entering... for interface %d\n", msg.intIfNum);
}

int handled(const char *operation, const RppiEventMsg &msg) {
  MIREL_TRACE(TRACE_GENERAL, operation, "Successfully handled %s router event for the interface %d\n",
              mirelRouterEventNameGet(msg.msgType), msg.intIfNum);
  return 0;
}

void vrrpAddressSet(const RppiEventMsg &msg, const char *device, uint32_t position) {
  const AddressLabel label(device, msg.vrrpLabelNum, position);
  const uint32_t addr = msg.vrrpAddr[position];
  if (msg.vrrpOp == OPERATION_ADD) {
    if (procOsapiNetlinkIPv4Add(label.text, addr, ADDRESS_MASK_HOST, NO_BROADCAST, &routeNetlinkSock) != 0) {
      MIREL_LOG(SEVERITY_NOTICE, "Failed to set VRRP IP address (%x) and mask (%x) on interface %d in the linux stack",
                addr, ADDRESS_MASK_HOST, msg.intIfNum);
    }
    return;
  }
  if (procOsapiNetlinkIPv4Del(label.text, addr, ADDRESS_MASK_HOST, &routeNetlinkSock) != 0) {
    MIREL_LOG(SEVERITY_NOTICE, "Failed to delete the VRRP IP address (%x) on interface %d in the linux stack", addr,
              msg.intIfNum);
  }
}

} // namespace

int mirelRtrMtuHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrMtuHandler";
  enteringTrace(OPERATION, *msg);
  const InterfaceDevice device(msg->intIfNum);
  if (!device.known || interfaceMtuApply(msg->intIfNum, device.name) != 0) {
    return 1;
  }
  return handled(OPERATION, *msg);
}

// The kernel has no bandwidth of a device: the value is read and dropped.
int mirelRtrBwHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrBwHandler";
  enteringTrace(OPERATION, *msg);
  const InterfaceDevice device(msg->intIfNum);
  if (!device.known) {
    return 1;
  }
  uint32_t bandwidth = 0;
  if (apiCall(rpcclt_tarnapiIntfBandwidthGet, TARN_FAMILY_IPV4, msg->intIfNum, &bandwidth) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the BW of the interface %d.", msg->intIfNum);
    return 1;
  }
  return handled(OPERATION, *msg);
}

int mirelRtrUnreachHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrUnreachHandler";
  enteringTrace(OPERATION, *msg);
  const InterfaceDevice device(msg->intIfNum);
  if (!device.known) {
    return 1;
  }
  uint32_t mode = 0;
  if (apiCall(rpcclt_tarnapiRtrICMPUnreachablesModeGet, msg->intIfNum, &mode) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the ICMP unreachables mode of the interface %d.", msg->intIfNum);
    return 1;
  }
  if (osapiIfIpv4IcmpSendDestinationUnreachableSet(device.name, mode) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP unreachables mode (%x) on the interface %d (%s). error:%d (%s)",
              mode, msg->intIfNum, device.name, error, strerror(error));
    return 1;
  }
  return handled(OPERATION, *msg);
}

int mirelRtrRedirectHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrRedirectHandler";
  enteringTrace(OPERATION, *msg);
  const InterfaceDevice device(msg->intIfNum);
  if (!device.known) {
    return 1;
  }
  uint32_t mode = 0;
  if (apiCall(rpcclt_tarnapiRtrICMPRedirectsModeGet, msg->intIfNum, &mode) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the ICMP redirects mode of the interface %d.", msg->intIfNum);
    return 1;
  }
  if (osapiIfIpv4IcmpRedirectSendSet(device.name, mode) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP redirects mode (%x) on the interface %d (%s). error:%d (%s)",
              mode, msg->intIfNum, device.name, error, strerror(error));
    return 1;
  }
  return handled(OPERATION, *msg);
}

int mirelRtrVrrpIpHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrVrrpIpHandler";
  enteringTrace(OPERATION, *msg);
  uint32_t type = INTF_TYPE_PRESET;
  if (apiCall(rpcclt_tarnapiRtrIntfTypeGet, msg->intIfNum, &type) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the interface type of the interface %d.", msg->intIfNum);
    return 1;
  }
  if (type == INTF_TYPE_LOOPBACK || type == INTF_TYPE_TUNNEL) {
    MIREL_LOG(SEVERITY_ERROR, "VRRP on loopback/tunnel interface %d.", msg->intIfNum);
    return 0;
  }
  char device[STK_IF_NAME_SIZE] = {};
  if (mirelStkIfNameGet(msg->intIfNum, device) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the USP info of the interface %d.", msg->intIfNum);
    return 1;
  }
  for (uint32_t position = 0; position < std::size(msg->vrrpAddr); ++position) {
    if (msg->vrrpAddr[position] != 0) {
      vrrpAddressSet(*msg, device, position);
    }
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled VRRP IP address add/delete router event.\n");
  return 0;
}

int mirelRtrAddrHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrAddrHandler";
  enteringTrace(OPERATION, *msg);
  if (mirelVrfId == 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "skipping for default VRF.\n");
    return 0;
  }
  const InterfaceDevice device(msg->intIfNum);
  if (!device.known) {
    return 1;
  }
  const AddressLabel label(device.name, msg->addrLabelNum);
  if (msg->addrOp == OPERATION_ADD) {
    const uint32_t broadcast = broadcastOf(msg->ipAddr, msg->ipMask);
    if (procOsapiNetlinkIPv4Add(label.text, msg->ipAddr, msg->ipMask, broadcast, &routeNetlinkSock) != 0) {
      const int error = errno;
      MIREL_LOG(SEVERITY_ERROR,
                "Failed to set the secondary IP address (%x), mask (%x) and broadcast address (%x) on the interface "
                "%d. error:%d (%s)",
                msg->ipAddr, msg->ipMask, broadcast, msg->intIfNum, error, strerror(error));
      return 1;
    }
  } else if (procOsapiNetlinkIPv4Del(label.text, msg->ipAddr, msg->ipMask, &routeNetlinkSock) != 0) {
    const int error = errno;
    MIREL_LOG(SEVERITY_ERROR,
              "Failed to delete the secondary IP address (%x) and mask (%x) on the interface %d. error:%d (%s)",
              msg->ipAddr, msg->ipMask, msg->intIfNum, error, strerror(error));
    return 1;
  }
  return handled(OPERATION, *msg);
}

int mirelRtrHostModeHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrHostModeHandler";
  enteringTrace(OPERATION, *msg);
  if (mirelVrfId == 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "skipping for default VRF.\n");
    return 0;
  }
  const InterfaceDevice device(msg->intIfNum);
  if (!device.known) {
    return 1;
  }
  const int left = mirelMcastGroupMembershipSet(msg->intIfNum, GROUP_LEAVE);
  if (left != 0) {
    MIREL_LOG(SEVERITY_INFO, "Failed to drop multicast group membership on the interface %d.", msg->intIfNum);
  }
  if (mirelIntfFlap(device.name) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to flap the interface %s.", device.name);
  }
  handled(OPERATION, *msg);
  return left;
}
