// Best-route changes: fetched from RTO in batches and applied to the kernel one by one. Main thread. The agent keeps no
// table of installed routes, only counters: the kernel's routes are the state.

#include "api_lock.h"
#include "mirel_address.h"
#include "mirel_best_route.h"
#include "mirel_router_table.h"
#include "mirel_trace.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr uint32_t NEXT_HOPS_MAX = std::extent_v<decltype(BestRouteRecord::nextHops)>;

enum RouteType : uint8_t { ROUTE_TYPE_LOCAL = 1, ROUTE_TYPE_KERNEL = 2 };

enum KernelStatus : int32_t { KERNEL_FAILED = 1, KERNEL_RPC_ERROR = 8 };

constexpr int32_t ROUTE_NO_NEXT_HOP = 1;

// What the traces print as the next hop of routes whose next hop has no IPv4 address.
constexpr const char *MPLS_NEXT_HOP_TEXT = "250.0.0.6";
constexpr const char *RFC5549_NEXT_HOP_TEXT = "250.0.0.2";

// Links made for routes that do not leave through a router interface.
constexpr const char *MPLS_DEVICE = "rt_mpls";
constexpr const char *RFC5549_DEVICE = "rfc5549if";
constexpr const char *VRF_DEVICE_SUFFIX = "_stk";

std::array<BestRouteRecord, BEST_ROUTE_BATCH> bestRouteChangeBuf;
static_assert(sizeof bestRouteChangeBuf == 89200);

// Prefix text for traces, made only when one of them is on.
class PrefixText {
public:
  PrefixText(const BestRouteRecord &route, const TraceClass &traceClass) {
    if (traceClass.on()) {
      failed_ = mirelPrefixToStr(&route.prefix, route.prefixLen, text_) == nullptr;
    }
  }
  const char *get() const { return text_; }
  bool failed() const { return failed_; }

private:
  char text_[PREFIX_TEXT_SIZE] = {};
  bool failed_ = false;
};

struct RouteTarget {
  uint32_t gateway = 0; // host byte order
  uint32_t intIfNum = 0;
  uint32_t flags = 0;
};

void nextHopTrace(const char *operation, const PrefixText &prefix, const RouteTarget &target) {
  if (!TRACE_GENERAL.on()) {
    return;
  }
  InetAddr nextHop{};
  nextHop.family = TARN_FAMILY_IPV4;
  nextHop.ipv4 = target.gateway;
  char text[ADDR_TEXT_SIZE] = {};
  mirelAddrToStr(&nextHop, text);
  MIREL_TRACE(TRACE_GENERAL, operation, "Adding route to %s with next hop %s on interface %x in stack\n", prefix.get(),
              text, target.intIfNum);
}

// Chooses the next hop and completes the flags. Returns false after a trace when there is no next hop to choose.
bool targetChoose(const char *operation, const BestRouteRecord &route, const NextHopRecord *nextHops,
                  const PrefixText &prefix, RouteTarget &target) {
  if (route.viaVrfDevice == 0 && route.mplsRoute != 0) {
    target.flags |= ROUTE_FLAG_MPLS;
    MIREL_TRACE(TRACE_GENERAL, operation, "Adding MPLS route to %s with next hop %s in stack\n", prefix.get(),
                MPLS_NEXT_HOP_TEXT);
  } else if (route.rfc5549 != 0) {
    target.flags |= ROUTE_FLAG_RFC5549;
    MIREL_TRACE(TRACE_GENERAL, operation, "Adding RFC5549 route to %s with next hop %s in stack\n", prefix.get(),
                RFC5549_NEXT_HOP_TEXT);
  } else {
    const uint32_t count = std::min(route.numNextHops, NEXT_HOPS_MAX);
    if (mirelNextHopSelect(count, nextHops, &target.gateway, &target.intIfNum) == nullptr) {
      MIREL_TRACE(TRACE_GENERAL, operation, "Failed to get next hop details for %s\n\n", prefix.get());
      return false;
    }
  }
  target.flags |= (route.viaVrfDevice != 0 ? ROUTE_FLAG_VRF_DEVICE : 0u) |
                  (route.flag8000 != 0 ? ROUTE_FLAG_8000 : 0u) | (route.rejectRoute != 0 ? ROUTE_FLAG_REJECT : 0u);
  return true;
}

bool hasPlainNextHop(const RouteTarget &target) {
  return (target.flags & (ROUTE_FLAG_MPLS | ROUTE_FLAG_RFC5549)) == 0;
}

// A failed query counts as ready.
bool systemNotReady() {
  uint32_t ready = 0;
  return apiCall(tarnapiSystemReadyStateGet, &ready) == TARN_OK && ready == 0;
}

using DeviceName = char[STK_IF_NAME_SIZE];

// The VRF's own device, its interface name with the suffix. False when the name leaves no room for the suffix.
bool vrfDeviceName(DeviceName &device) {
  const tarn_buffdesc name{.size = sizeof device, .pstart = device};
  apiCall(rpcclt_tarnapiVrfIntfNameGet, mirelVrfId, &name);
  const size_t length = strnlen(device, sizeof device);
  if (length + strlen(VRF_DEVICE_SUFFIX) >= sizeof device) {
    return false;
  }
  strcpy(device + length, VRF_DEVICE_SUFFIX);
  return true;
}

// Fills the cleared device name; it stays empty for a route without one, or whose interface has no kernel device.
bool deviceNameFill(uint32_t flags, uint32_t intIfNum, DeviceName &device) {
  if ((flags & ROUTE_FLAG_VRF_DEVICE) != 0) {
    return vrfDeviceName(device);
  }
  if ((flags & ROUTE_FLAG_MPLS) != 0) {
    strcpy(device, MPLS_DEVICE);
  } else if ((flags & ROUTE_FLAG_RFC5549) != 0) {
    strcpy(device, RFC5549_DEVICE);
  } else if (intIfNum != 0) {
    mirelStkIfNameGet(intIfNum, device);
  }
  return true;
}

int32_t batchFetch() {
  memset(bestRouteChangeBuf.data(), 0, sizeof bestRouteChangeBuf);
  const tarn_buffdesc records{.size = sizeof bestRouteChangeBuf,
                              .pstart = reinterpret_cast<char *>(bestRouteChangeBuf.data())};
  return apiCall(rpcclt_tarnapiBestRouteChangeNextGetMult, brc_client_id.get(), BEST_ROUTE_BATCH, &records);
}

void changeApply(const BestRouteRecord &record) {
  constexpr const char *OPERATION = "mirelBestRoutesProcess";
  int32_t status = 0;
  switch (record.changeType) {
  case CHANGE_DELETE:
    MirelRouteDel(&record);
    break;
  case CHANGE_ADD:
    status = MirelRouteAdd(&record, record.nextHops);
    if (status != 0) {
      mirelRouteFailureCount(OPERATION, "add", record, status);
    }
    break;
  case CHANGE_MODIFY:
    status = MirelRouteMod(&record, record.nextHops);
    if (status != 0) {
      mirelRouteFailureCount(OPERATION, "modify", record, status);
    }
    break;
  default:
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Invalid route change type %d\n", record.changeType);
    break;
  }
}

void drainEnd() {
  bestRouteChangePending = 0;
  brc_client_keepalive_time = currentGetTime();
}

} // namespace

void mirelBestRoutesProcess() {
  constexpr const char *OPERATION = "mirelBestRoutesProcess";
  if (bestRouteChangePending == 0) {
    return;
  }
  const uint32_t start = currentGetTime();
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Fetching %d best routes from RTO.\n", BEST_ROUTE_BATCH);
  for (;;) {
    const int32_t status = batchFetch();
    if (status != TARN_OK && status != TARN_NO_MORE) {
      drainEnd();
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Error %d retrieving best route changes.\n", status);
      ++statsHandle.numBestRouteGetErrors;
      return;
    }
    for (const BestRouteRecord &record : bestRouteChangeBuf) {
      if (record.valid != 0) {
        changeApply(record);
      }
    }
    if (status == TARN_NO_MORE) {
      drainEnd();
      return;
    }
    if (currentGetTime() - start > mirelBestRouteApplyTime) {
      brc_client_keepalive_time = currentGetTime(); // what is left stays pending until the next call
      return;
    }
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Fetching %d best routes from RTO. Client ID = %d\n", BEST_ROUTE_BATCH,
                brc_client_id.get());
  }
}

void mirelRouteFailureCount(const char *operation, const char *verb, const BestRouteRecord &record, int32_t status) {
  const PrefixText prefix(record, TRACE_ROUTE_FAILURE);
  MIREL_TRACE(TRACE_ROUTE_FAILURE, operation, "Failed to %s route to %s, error = %d\n\n", verb, prefix.get(), status);
  if (status == KERNEL_RPC_ERROR) {
    ++statsHandle.numRpcErrors;
  }
}

int32_t MirelRouteAdd(const BestRouteRecord *route, const NextHopRecord *nextHops) {
  constexpr const char *OPERATION = "MirelRouteAdd";
  const PrefixText prefix(*route, TRACE_GENERAL);
  if (prefix.failed()) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Error in getting the address for route add\n");
  }
  if (route->routeType == ROUTE_TYPE_LOCAL) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteAdd ignored local route %s\n", prefix.get());
    ++statsHandle.numRoutesAdded;
    ++statsHandle.numActiveRoutes;
    return 0;
  }
  RouteTarget target;
  if (route->routeType == ROUTE_TYPE_KERNEL) {
    if (route->installKernelRoute == 0) {
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteAdd ignored kernel route %s\n", prefix.get());
      ++statsHandle.numRoutesAdded;
      ++statsHandle.numActiveRoutes;
      return 0;
    }
    target.flags = ROUTE_FLAG_KERNEL;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteAdd added route for %s\n", prefix.get());
  const uint32_t mask = pfxLenToMask(route->prefixLen);
  if (!targetChoose(OPERATION, *route, nextHops, prefix, target)) {
    ++statsHandle.numRouteAddErrors;
    return ROUTE_NO_NEXT_HOP;
  }
  if (hasPlainNextHop(target)) {
    nextHopTrace(OPERATION, prefix, target);
  }
  const int32_t status = mirelKernelRouteAdd(route->prefix.ipv4, mask, target.gateway, target.intIfNum, target.flags);
  if (status != 0) {
    ++statsHandle.numRouteAddErrors;
    return status;
  }
  ++statsHandle.numRoutesAdded;
  ++statsHandle.numActiveRoutes;
  return 0;
}

int32_t MirelRouteMod(const BestRouteRecord *route, const NextHopRecord *nextHops) {
  constexpr const char *OPERATION = "MirelRouteMod";
  const PrefixText prefix(*route, TRACE_GENERAL);
  if (prefix.failed()) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Error in getting the address for route add\n");
  }
  if (route->routeType == ROUTE_TYPE_LOCAL) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteMod ignored local route %s\n", prefix.get());
    return 0;
  }
  if (route->routeType == ROUTE_TYPE_KERNEL) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteMod ignored kernel route %s\n", prefix.get());
    return 0;
  }
  const uint32_t mask = pfxLenToMask(route->prefixLen);
  mirelKernelRouteDelete(route->prefix.ipv4, mask, 0, 0); // nothing to remove is as good
  RouteTarget target;
  if (!targetChoose(OPERATION, *route, nextHops, prefix, target)) {
    ++statsHandle.numRouteModifyErrors;
    return ROUTE_NO_NEXT_HOP;
  }
  const int32_t status = mirelKernelRouteAdd(route->prefix.ipv4, mask, target.gateway, target.intIfNum, target.flags);
  if (status != 0) {
    ++statsHandle.numRouteModifyErrors;
    return status;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteMod Modified route for %s\n", prefix.get());
  ++statsHandle.numRoutesModified;
  return 0;
}

void MirelRouteDel(const BestRouteRecord *route) {
  constexpr const char *OPERATION = "MirelRouteDel";
  const PrefixText prefix(*route, TRACE_GENERAL);
  if (prefix.failed()) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Error in getting the address for route del\n");
  }
  if (mirelKernelRouteDelete(route->prefix.ipv4, pfxLenToMask(route->prefixLen), 0, 0) == KERNEL_FAILED) {
    ++statsHandle.numRouteDeleteErrors;
  } else {
    ++statsHandle.numRoutesDeleted;
    --statsHandle.numActiveRoutes;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "MirelRouteDel deleted route for %s\n", prefix.get());
}

int32_t mirelKernelRouteAdd(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum, uint32_t flags) {
  DeviceName device = {};
  bool deviceFits = false;
  {
    const ApiLock lock; // taken once for all that a route asks: taking it again inside costs next to nothing
    if (systemNotReady()) {
      return 0;
    }
    deviceFits = deviceNameFill(flags, intIfNum, device);
  }
  const uint32_t kernelGateway = (flags & ROUTE_FLAG_VRF_DEVICE) != 0 ? 0 : gateway;
  const int32_t status = deviceFits
                             ? procOsapiAddMRoute(dest, mask, kernelGateway, intIfNum, flags, device, &routeNetlinkSock)
                             : KERNEL_FAILED;
  if (status != 0) {
    ++statsHandle.numStackErrors;
  }
  return status;
}

int32_t mirelKernelRouteDelete(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum) {
  if (systemNotReady()) {
    return 0;
  }
  DeviceName device = {};
  if (intIfNum != 0) {
    mirelStkIfNameGet(intIfNum, device);
  }
  return procOsapiDeleteMRoute(dest, mask, gateway, intIfNum, device, &routeNetlinkSock);
}
