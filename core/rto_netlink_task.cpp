// The external route task: takes the listener's messages off the queue, reports each to RTO as a kernel route of the VRF,
// counts and logs the outcome. A thread of its own, so that calls to the switch do not hold up the listener. The queue and
// both threads are made here, at start-up, and live as long as the process.

#include "api_lock.h"
#include "rto_netlink.h"
#include "rto_netlink_trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>

osapiMsgQueue *extRouteQueue = nullptr;
Counter numExtRouteAdds;
Counter numExtRouteAddErrors;
Counter numExtRouteDeletes;
Counter numExtRouteDeleteErrors;

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/rto_netlink";
constexpr const char *TASK_OPERATION = "qv_extRouteProc_task";

constexpr uint32_t QUEUE_DEPTH = 1024;
constexpr RtoStatus NO_STATUS{-1};

struct CounterRow {
  Counter &counter;
  const char *key;
  const char *label;
};

constexpr CounterRow COUNTERS[] = {
    {numExtRouteAdds, "numExtRouteAdds", "\nCount of successful route add: "},
    {numExtRouteAddErrors, "numExtRouteAddErrors", "\nCount of unsuccessful route add: "},
    {numExtRouteDeletes, "numExtRouteDeletes", "\nCount of successful route delete: "},
    {numExtRouteDeleteErrors, "numExtRouteDeleteErrors", "\nCount of unsuccessful route delete: "},
    {numExtRouteQueueDrops, "numExtRouteQueueDrops", "\nCount of queue drops while queueing to qv-ext-route-task: "},
    {numExtRouteInvalid, "numExtRouteInvalid", "\nCount of invalid routes recieved and discarded: "},
    {numRtoNetlinkRxErrors, "numRtoNetlinkRxErrors", "\nCount of RTO netlink socket receive errors: "},
};

// ---- one report

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

// ---- what becomes of it

// One action: how it is reported, which status passes in silence, which failure is only worth a note, and what is counted
// and logged. The texts take what resultLog() of the layout gives them.
template <typename Route> struct RouteAction {
  uint32_t action;
  const char *name;
  RtoStatus (*report)(const Route &route);
  RtoStatus silent;
  RtoStatus noted;
  Counter &done;
  Counter &failed;
  const char *doneText;
  const char *failedText;
};

constexpr RouteAction<ExtRoute> ACTIONS[] = {
    {RT_NETLINK_ADD, "case RT_NETLINK_ADD\n", mirelToRtoRouteAdd, RTO_EXISTS, RTO_FULL, numExtRouteAdds,
     numExtRouteAddErrors, "Successfully added kernel route ip %s mask %s via %s on IntIf %d.",
     "Failed adding kernel route ip %s mask %s via %s on IntIf %d. Error: %d."},
    {RT_NETLINK_DELETE, "case RT_NETLINK_DELETE\n", mirelToRtoRouteDelete, RTO_REFUSED, NO_STATUS, numExtRouteDeletes,
     numExtRouteDeleteErrors, "Successfully deleted kernel route ip %s mask %s via %s on IntIf %d.",
     "Failed deleting kernel route ip %s mask %s via %s on IntIf %d. Error: %d."},
};

constexpr RouteAction<ExtRoute6> ACTIONS6[] = {
    {RT_NETLINK_ADD6, "case RT_NETLINK_ADD6\n", mirelToRtoRoute6Add, RTO_EXISTS, RTO_FULL, numExtRouteAdds,
     numExtRouteAddErrors, "Successfully added kernel IPv6 route %s/%d via %s on IntIf %d.",
     "Failed adding kernel IPv6 route %s/%d via %s on IntIf %d. Error: %d."},
    {RT_NETLINK_DELETE6, "case RT_NETLINK_DELETE6\n", mirelToRtoRoute6Delete, RTO_REFUSED, NO_STATUS,
     numExtRouteDeletes, numExtRouteDeleteErrors, "Successfully deleted kernel IPv6 route %s/%d via %s on IntIf %d.",
     "Failed deleting kernel IPv6 route %s/%d via %s on IntIf %d. Error: %d."},
};

// The status is the last argument; the texts of success leave it out.
void resultLog(uint32_t severity, const char *text, const ExtRoute &route, RtoStatus status) {
  const ExtRouteNextHop &hop = route.nextHops[0];
  qvproc_logf(severity, COMPONENT_MIREL, LOG_AREA, __LINE__, text, AddrText(route.destination).text,
              AddrText(route.mask).text, AddrText(hop.gateway).text, hop.intIfNum, status);
}

void resultLog(uint32_t severity, const char *text, const ExtRoute6 &route, RtoStatus status) {
  const ExtRouteNextHop6 &hop = route.nextHops[0];
  qvproc_logf(severity, COMPONENT_MIREL, LOG_AREA, __LINE__, text, AddrText(route.destination).text, route.prefixLen,
              AddrText(hop.gateway).text, hop.intIfNum, status);
}

bool skipped(const ExtRoute &) {
  return false;
}

// Link-local routes, fe80::/10, mean nothing outside the link.
bool skipped(const ExtRoute6 &route) {
  return route.destination[0] == 0xfe && (route.destination[1] & 0xc0) == 0x80;
}

template <typename Route> void actionPerform(const RouteAction<Route> &action, const Route &route) {
  MIREL_TRACE(TRACE_RTO_DETAIL, TASK_OPERATION, "%s", action.name);
  if (skipped(route)) {
    return;
  }
  const RtoStatus status = action.report(route);
  if (status == RTO_DONE) {
    ++action.done;
    resultLog(SEVERITY_INFO, action.doneText, route, status);
  } else if (status != action.silent) {
    ++action.failed;
    resultLog(status == action.noted ? SEVERITY_INFO : SEVERITY_ERROR, action.failedText, route, status);
  }
}

void threadStart(void *(*entry)(void *), const char *failedText) {
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, entry, nullptr);
  if (error != 0) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, failedText, mirelVrfName, error);
    exit(EXIT_SUCCESS);
  }
}

} // namespace

void rtoNetlinkStatsShow(ShowForm form) {
  ShowOutput out(form, ShowOutput::ONE_RECORD);
  for (const CounterRow &row : COUNTERS) {
    const uint32_t count = row.counter.get();
    const int64_t inText = static_cast<int32_t>(count); // the text is a signed number
    out.row({row.label, row.key, form == ShowForm::JSON ? count : inText});
  }
}

void rtoNetlinkStatsClear() {
  for (const CounterRow &row : COUNTERS) {
    row.counter = 0;
  }
}

int rtoNetlinkInit() {
  const RtoCallTrace call("rtoNetlinkInit");
  extRouteQueue = osapiMsgQueueCreate("Ext route_queue", QUEUE_DEPTH, sizeof(rto_extRoute_msg *));
  if (extRouteQueue == nullptr) {
    MIREL_LOG(SEVERITY_ERROR, "ERROR: Failed to create RtoNetlink-rtoExtRoute_queue.");
    exit(EXIT_SUCCESS);
  }
  threadStart(rtoNetlinkLinuxUpdatesHandler,
              "[VRF \"%s\"]: Failed to create RtoNetlink-LinuxUpdatesHandler thread. Error %d.");
  threadStart(qv_extRouteProc_task, "[VRF \"%s\"]: Failed to create RtoNetlink-ExtRoutesProcess thread. Error %d.");
  rtoNetlinkStatsClear();
  // The interfaces come up next, and their connected routes are announced only once.
  rtoNetlinkSetUpAwait();
  return 0;
}

int rtoNetlinkFini() {
  const RtoCallTrace call("rtoNetlinkFini");
  if (extRouteQueue != nullptr) {
    osapiMsgQueueDelete(extRouteQueue);
    extRouteQueue = nullptr;
  }
  return 0;
}

void *qv_extRouteProc_task(void *) {
  const RtoCallTrace call(TASK_OPERATION);
  for (;;) {
    rto_extRoute_msg *received = nullptr;
    if (osapiMessageReceive(extRouteQueue, &received, sizeof received, QV_WAIT_FOREVER) != 0) {
      MIREL_TRACE(TRACE_RTO_FAILURE, TASK_OPERATION, " osapiMessageReceive failed.\n");
      exit(EXIT_SUCCESS);
    }
    const std::unique_ptr<const rto_extRoute_msg> msg(received);
    rtoExternalRouteReport(*msg);
  }
}

void rtoExternalRouteReport(const rto_extRoute_msg &msg) {
  for (const auto &action : ACTIONS) {
    if (action.action == msg.action) {
      actionPerform(action, msg.ipv4);
      return;
    }
  }
  for (const auto &action : ACTIONS6) {
    if (action.action == msg.action) {
      actionPerform(action, msg.ipv6);
      return;
    }
  }
  qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Action %d not supported ", msg.action);
}

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
