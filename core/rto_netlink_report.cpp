// The report of one foreign route to RTO: its record, its next hops, the call, and what the answer means. Route task's thread.

#include "api_lock.h"
#include "rto_netlink.h"
#include "rto_netlink_trace.h"

#include <algorithm>
#include <cstring>

namespace {

struct RtoCall {
  int32_t (*call)(tarnapiClient *, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops);
  const char *failedText;
};

constexpr RtoCall ADD_CALL = {rpcclt_tarnapiKernelRouteAddVr, " tarnapiKernelRouteAddVr failed. rc = %d\n"};
constexpr RtoCall DELETE_CALL = {rpcclt_tarnapiKernelRouteDelVr, " tarnapiKernelRouteDelVr failed. rc = %d\n"};

RtoRouteRecord recordOf(const ExtRoute &route) {
  RtoRouteRecord record{};
  record.prefix.family = TARN_FAMILY_IPV4;
  record.prefix.ipv4 = route.destination;
  record.prefixLen = static_cast<uint8_t>(osapiInetMaskLengthGet(route.mask));
  record.routeProto = route.routeProto;
  record.metric = route.metric;
  return record;
}

RtoRouteRecord recordOf(const ExtRoute6 &route) {
  RtoRouteRecord record{};
  record.prefix.family = TARN_FAMILY_IPV6;
  memcpy(record.prefix.ipv6, route.destination, sizeof record.prefix.ipv6);
  record.prefixLen = static_cast<uint8_t>(route.prefixLen);
  return record;
}

NextHopRecord nextHopOf(const ExtRouteNextHop &hop) {
  NextHopRecord record{};
  record.addr.family = TARN_FAMILY_IPV4;
  record.addr.ipv4 = hop.gateway;
  record.intIfNum = hop.intIfNum;
  return record;
}

NextHopRecord nextHopOf(const ExtRouteNextHop6 &hop) {
  NextHopRecord record{};
  record.addr.family = TARN_FAMILY_IPV6;
  memcpy(record.addr.ipv6, hop.gateway, sizeof record.addr.ipv6);
  record.intIfNum = hop.intIfNum;
  return record;
}

RtoStatus statusOf(int32_t result) {
  switch (result) {
  case TARN_OK:
    return RTO_DONE;
  case TARN_FAILURE:
    return RTO_FAILURE;
  case TARN_EXISTS:
    return RTO_EXISTS;
  case TARN_FULL:
    return RTO_FULL;
  default:
    return RTO_REFUSED;
  }
}

// Copies the next hops into the list, as many as it holds, and sizes it to them. Returns their number.
template <typename Route> uint32_t nextHopsCopy(const Route &route, tarn_buffdesc &list) {
  constexpr uint32_t HOP_SIZE = sizeof(NextHopRecord);
  const uint32_t count = std::min({route.numNextHops, EXT_ROUTE_NEXT_HOPS, list.size / HOP_SIZE});
  for (uint32_t i = 0; i < count; ++i) {
    const NextHopRecord hop = nextHopOf(route.nextHops[i]);
    memcpy(list.pstart + i * HOP_SIZE, &hop, HOP_SIZE);
  }
  list.size = count * HOP_SIZE;
  return count;
}

template <typename Route> RtoStatus routeReport(const RtoCall &rto, const Route &route, const char *operation) {
  const RtoCallTrace call(operation);
  RtoRouteRecord record = recordOf(route);
  record.routeType = static_cast<uint8_t>(route.routeType);
  record.rejectRoute = (route.flags & EXT_ROUTE_REJECT) != 0 ? 1 : 0;
  record.discardRoute = (route.flags & EXT_ROUTE_DISCARD) != 0 ? 1 : 0;
  record.reportFlag = route.reportFlag;
  tarn_buffdesc nextHops{};
  if (nextHopListBuffDescStorageAllocate(&nextHops) == 0) {
    MIREL_TRACE(TRACE_RTO_FAILURE, operation, " nextHopListBuffDescStorageAllocate failed.\n");
    return RTO_FAILURE;
  }
  record.numNextHops = nextHopsCopy(route, nextHops);
  const RtoStatus status = statusOf(apiCall(rto.call, mirelVrfId, &record, &nextHops));
  if (status != RTO_DONE) {
    MIREL_TRACE(TRACE_RTO_FAILURE, operation, rto.failedText, status);
  }
  nextHopListBuffDescStorageFree(&nextHops);
  return status;
}

} // namespace

RtoStatus mirelToRtoRouteAdd(const ExtRoute &route) {
  return routeReport(ADD_CALL, route, "mirelToRtoRouteAdd");
}

RtoStatus mirelToRtoRouteDelete(const ExtRoute &route) {
  return routeReport(DELETE_CALL, route, "mirelToRtoRouteDelete");
}

RtoStatus mirelToRtoRoute6Add(const ExtRoute6 &route) {
  return routeReport(ADD_CALL, route, "mirelToRtoRoute6Add");
}

RtoStatus mirelToRtoRoute6Delete(const ExtRoute6 &route) {
  return routeReport(DELETE_CALL, route, "mirelToRtoRoute6Delete");
}
