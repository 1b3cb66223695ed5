// The external route task: takes the listener's messages off the queue, reports each to RTO as a kernel route of the VRF,
// counts and logs the outcome. In a resync it compares the routes of a dump with what RTO has answered for, and reports only
// what differs. A thread of its own, so that calls to the switch do not hold up the listener. The queue and both threads are
// made here, at start-up, and live as long as the process.

#include "mirel_address.h"
#include "rto_netlink.h"
#include "rto_netlink_known.h"
#include "rto_netlink_trace.h"

#include <bitset>
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
  void (*note)(RtoKnownRoute route, RtoStatus status); // keeps what RTO holds now
};

void additionNote(RtoKnownRoute route, RtoStatus status);
void withdrawalNote(RtoKnownRoute route, RtoStatus status);

constexpr RouteAction<ExtRoute> ACTIONS[] = {
    {RT_NETLINK_ADD, "case RT_NETLINK_ADD\n", mirelToRtoRouteAdd, RTO_EXISTS, RTO_FULL, numExtRouteAdds,
     numExtRouteAddErrors, "Successfully added kernel route ip %s mask %s via %s on IntIf %d.",
     "Failed adding kernel route ip %s mask %s via %s on IntIf %d. Error: %d.", additionNote},
    {RT_NETLINK_DELETE, "case RT_NETLINK_DELETE\n", mirelToRtoRouteDelete, RTO_REFUSED, NO_STATUS, numExtRouteDeletes,
     numExtRouteDeleteErrors, "Successfully deleted kernel route ip %s mask %s via %s on IntIf %d.",
     "Failed deleting kernel route ip %s mask %s via %s on IntIf %d. Error: %d.", withdrawalNote},
};

constexpr RouteAction<ExtRoute6> ACTIONS6[] = {
    {RT_NETLINK_ADD6, "case RT_NETLINK_ADD6\n", mirelToRtoRoute6Add, RTO_EXISTS, RTO_FULL, numExtRouteAdds,
     numExtRouteAddErrors, "Successfully added kernel IPv6 route %s/%d via %s on IntIf %d.",
     "Failed adding kernel IPv6 route %s/%d via %s on IntIf %d. Error: %d.", additionNote},
    {RT_NETLINK_DELETE6, "case RT_NETLINK_DELETE6\n", mirelToRtoRoute6Delete, RTO_REFUSED, NO_STATUS,
     numExtRouteDeletes, numExtRouteDeleteErrors, "Successfully deleted kernel IPv6 route %s/%d via %s on IntIf %d.",
     "Failed deleting kernel IPv6 route %s/%d via %s on IntIf %d. Error: %d.", withdrawalNote},
};

constexpr const RouteAction<ExtRoute> &ADDITION = ACTIONS[0];
constexpr const RouteAction<ExtRoute> &WITHDRAWAL = ACTIONS[1];
constexpr const RouteAction<ExtRoute6> &ADDITION6 = ACTIONS6[0];
constexpr const RouteAction<ExtRoute6> &WITHDRAWAL6 = ACTIONS6[1];

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

template <typename Route> void outcomeAccount(const RouteAction<Route> &action, const Route &route, RtoStatus status) {
  if (status == RTO_DONE) {
    ++action.done;
    resultLog(SEVERITY_INFO, action.doneText, route, status);
  } else if (status != action.silent) {
    ++action.failed;
    resultLog(status == action.noted ? SEVERITY_INFO : SEVERITY_ERROR, action.failedText, route, status);
  }
}

// ---- what RTO is known to hold

constexpr uint32_t ANSWER_SECONDS_MAX = 1; // for a report in a resync; a switch that hangs costs five a report

struct Resync {
  bool comparing = false;   // from the begin of a dump to its end
  bool withdrawing = false; // after the end, until no route is left that the dump did not show
  bool unanswered = false;  // RTO did not answer in time: the rest is left to the next resync
  size_t slot = 0;          // where the search for routes to withdraw goes on
} resync;

// Interfaces that RTO has dropped routes of without a withdrawal, as it does when one goes down. Until the next resync.
std::bitset<UINT16_MAX + 1> droppedInterfaces;

// A report that failed is made again by the next resync.
template <typename Route> RtoStatus reportMake(const RouteAction<Route> &action, const Route &route) {
  const uint32_t start = currentGetTime();
  const RtoStatus status = action.report(route);
  if (status == RTO_FAILURE) {
    resync.unanswered = resync.unanswered || currentGetTime() - start > ANSWER_SECONDS_MAX;
    rtoResyncRequestAndWake();
  }
  return status;
}

void additionNote(RtoKnownRoute route, RtoStatus status) {
  RtoKnownRoute *known = rtoKnownRoutes.find(route);
  const bool held = known != nullptr && known->is(RTO_KNOWN_HELD);
  const bool same = held && known->sameContent(route);
  if (same && status == RTO_DONE && !known->is(RTO_KNOWN_PENDING)) {
    droppedInterfaces.set(route.intIfNum); // RTO would have answered that it has the route
  }
  const bool refused = status == RTO_REFUSED || status == RTO_FULL;
  if (held && !same && refused) {
    known->set(RTO_KNOWN_SEEN); // RTO still holds the route that this one replaces
    return;
  }
  route.set(RTO_KNOWN_SEEN);
  if (held || !refused) {
    route.set(RTO_KNOWN_HELD);
  }
  if (status == RTO_FAILURE) {
    route.set(RTO_KNOWN_PENDING);
  }
  rtoKnownRoutes.place(route);
}

void withdrawalNote(RtoKnownRoute route, RtoStatus status) {
  RtoKnownRoute *known = rtoKnownRoutes.find(route);
  if (status == RTO_FAILURE) {
    route.set(RTO_KNOWN_HELD | RTO_KNOWN_PENDING | RTO_KNOWN_SEEN);
    rtoKnownRoutes.place(route);
  } else if (known != nullptr && status == RTO_REFUSED && !known->sameContent(route)) {
    return; // RTO holds another route of the prefix
  } else if (resync.comparing) {
    route.set(RTO_KNOWN_GONE | RTO_KNOWN_SEEN);
    rtoKnownRoutes.place(route);
  } else if (known != nullptr) {
    rtoKnownRoutes.erase(known);
  }
}

// ---- notifications

template <typename Route> void notificationReport(const RouteAction<Route> &action, const Route &route) {
  MIREL_TRACE(TRACE_RTO_DETAIL, TASK_OPERATION, "%s", action.name);
  if (skipped(route)) {
    return;
  }
  const RtoStatus status = reportMake(action, route);
  outcomeAccount(action, route, status);
  action.note(rtoKnownOf(route), status);
}

template <typename Route, size_t COUNT>
bool notificationReport(const RouteAction<Route> (&actions)[COUNT], uint32_t number, const Route &route) {
  for (const RouteAction<Route> &action : actions) {
    if (action.action == number) {
      notificationReport(action, route);
      return true;
    }
  }
  return false;
}

// ---- resync

void resyncBegin() {
  for (size_t slot = 0; slot < rtoKnownRoutes.capacity(); ++slot) {
    RtoKnownRoute &known = rtoKnownRoutes.at(slot);
    if (droppedInterfaces.test(known.intIfNum)) {
      known.set(RTO_KNOWN_PENDING);
    }
    known.clear(RTO_KNOWN_SEEN);
  }
  // Withdrawn since an earlier begin; a dump that shows it now is right. A new capacity has moved every record.
  for (size_t slot = 0; slot < rtoKnownRoutes.capacity();) {
    const size_t capacity = rtoKnownRoutes.capacity();
    if (rtoKnownRoutes.at(slot).is(RTO_KNOWN_GONE)) {
      rtoKnownRoutes.erase(&rtoKnownRoutes.at(slot));
      slot = rtoKnownRoutes.capacity() == capacity ? slot : 0;
    } else {
      ++slot;
    }
  }
  droppedInterfaces.reset();
  resync = {.comparing = true};
}

void resyncEnd() {
  resync.comparing = false;
  resync.withdrawing = true;
  resync.slot = 0;
}

// A route that the kernel holds. What has been notified since the dump began is newer; of several routes of one key, the
// kernel uses the first. A report that fails a second time is neither counted nor logged again.
template <typename Route> void dumpedCompare(const RouteAction<Route> &addition, const Route &route) {
  if (skipped(route)) {
    return;
  }
  const RtoKnownRoute now = rtoKnownOf(route);
  RtoKnownRoute *known = rtoKnownRoutes.find(now);
  const bool same = known != nullptr && known->sameContent(now);
  if (known != nullptr) {
    const bool settled = known->is(RTO_KNOWN_SEEN) || (same && !known->is(RTO_KNOWN_PENDING));
    known->set(RTO_KNOWN_SEEN);
    if (settled) {
      return;
    }
  }
  if (resync.unanswered) {
    return;
  }
  const RtoStatus status = reportMake(addition, route);
  if (status != RTO_FAILURE || !same) {
    outcomeAccount(addition, route, status);
  }
  additionNote(now, status);
}

template <typename Route> void withdraw(const RouteAction<Route> &withdrawal, const Route &route, RtoKnownRoute known) {
  const RtoStatus status = reportMake(withdrawal, route);
  if (status != RTO_FAILURE || !known.is(RTO_KNOWN_PENDING)) {
    outcomeAccount(withdrawal, route, status);
  }
  withdrawalNote(known, status);
}

void withdraw(const RtoKnownRoute &known) {
  if (known.is(RTO_KNOWN_IPV6)) {
    withdraw(WITHDRAWAL6, known.ipv6(), known);
  } else {
    withdraw(WITHDRAWAL, known.ipv4(), known);
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
  extRouteQueue = osapiMsgQueueCreate("Ext route_queue", EXT_ROUTE_QUEUE_DEPTH, sizeof(rto_extRoute_msg *));
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
  rtoKnownRoutes.removeAll();
  resync = {};
  droppedInterfaces.reset();
  return 0;
}

void *qv_extRouteProc_task(void *) {
  const RtoCallTrace call(TASK_OPERATION);
  for (;;) {
    rto_extRoute_msg *received = nullptr;
    const int32_t wait = resync.withdrawing ? QV_NO_WAIT : QV_WAIT_FOREVER;
    if (osapiMessageReceive(extRouteQueue, &received, sizeof received, wait) == 0) {
      const std::unique_ptr<const rto_extRoute_msg> msg(received);
      rtoExternalRouteReport(*msg);
    } else if (resync.withdrawing) {
      rtoWithdrawNext();
    } else {
      MIREL_TRACE(TRACE_RTO_FAILURE, TASK_OPERATION, " osapiMessageReceive failed.\n");
      exit(EXIT_SUCCESS);
    }
  }
}

// The search is through when it finds nothing from the first slot to the last, since records move when others are removed.
bool rtoWithdrawNext() {
  bool whole = resync.slot == 0;
  while (resync.withdrawing && !resync.unanswered) {
    if (resync.slot >= rtoKnownRoutes.capacity()) {
      if (whole) {
        break;
      }
      whole = true;
      resync.slot = 0;
      continue;
    }
    RtoKnownRoute &known = rtoKnownRoutes.at(resync.slot);
    if (known.flags == 0 || (known.is(RTO_KNOWN_SEEN) && !known.is(RTO_KNOWN_GONE))) {
      ++resync.slot;
    } else if (known.is(RTO_KNOWN_HELD)) {
      withdraw(RtoKnownRoute(known));
      return true;
    } else {
      rtoKnownRoutes.erase(&known);
      whole = false;
    }
  }
  resync.withdrawing = false;
  return false;
}

void rtoExternalRouteReport(const rto_extRoute_msg &msg) {
  switch (msg.action) {
  case RT_RESYNC_ROUTE:
    return dumpedCompare(ADDITION, msg.ipv4);
  case RT_RESYNC_ROUTE6:
    return dumpedCompare(ADDITION6, msg.ipv6);
  case RT_RESYNC_BEGIN:
    return resyncBegin();
  case RT_RESYNC_END:
    return resyncEnd();
  default:
    if (!notificationReport(ACTIONS, msg.action, msg.ipv4) && !notificationReport(ACTIONS6, msg.action, msg.ipv6)) {
      qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "Action %d not supported ", msg.action);
    }
  }
}
