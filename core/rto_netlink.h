// Import of the kernel's routes: a thread listens to the route notifications of the namespace and turns those of other
// programs into messages; a queue hands them to a task, on a thread of its own, which reports them to RTO.
#pragma once

#include "mirel_context.h"
#include "mirel_show.h"
#include "netlink_attr.h"

#include <atomic>
#include <memory>

// ---- the message from listener to task

enum RtoRouteAction : uint32_t {
  RT_NETLINK_ADD = 1,
  RT_NETLINK_DELETE = 2,
  RT_NETLINK_ADD6 = 3,
  RT_NETLINK_DELETE6 = 4,
};

// What a resync adds, beyond every action of a notification.
enum RtoResyncAction : uint32_t {
  RT_RESYNC_ROUTE = 0x101,  // an IPv4 route that the kernel holds
  RT_RESYNC_ROUTE6 = 0x103, // the same, IPv6
  RT_RESYNC_BEGIN = 0x104,  // of a dump; without a route
  RT_RESYNC_END = 0x105,    // every route that the kernel holds has been passed on; without a route
};

inline constexpr uint32_t EXT_ROUTE_DISCARD = 0x8; // flags of a route without a next hop
inline constexpr uint32_t EXT_ROUTE_REJECT = 0x10;

// What RTO files every kernel route under.
inline constexpr uint32_t EXT_ROUTE_TYPE = 2;
inline constexpr uint32_t EXT_ROUTE_PROTO = 7;
inline constexpr uint8_t EXT_ROUTE_REPORT_FLAG = 1;

inline constexpr uint32_t EXT_ROUTE_NEXT_HOPS = 16;
inline constexpr uint32_t EXT_ROUTE_QUEUE_DEPTH = 1024; // messages

struct ExtRouteNextHop {
  uint32_t gateway; // host byte order
  uint32_t intIfNum;
};

struct ExtRouteNextHop6 {
  uint8_t gateway[16]; // network byte order
  uint32_t intIfNum;
};

struct ExtRoute {
  uint32_t destination; // host byte order
  uint32_t mask;
  uint32_t routeType;
  uint32_t routeProto;
  uint32_t metric;
  ExtRouteNextHop nextHops[EXT_ROUTE_NEXT_HOPS];
  uint32_t numNextHops;
  uint32_t flags;
  uint8_t reportFlag;
};

struct ExtRoute6 {
  uint8_t destination[16]; // network byte order
  uint32_t prefixLen;
  uint32_t routeType;
  ExtRouteNextHop6 nextHops[EXT_ROUTE_NEXT_HOPS];
  uint32_t numNextHops;
  uint32_t flags;
  uint8_t reportFlag;
};

// Allocated with new. Whoever ends its life deletes it: the listener, or the task once it is in the queue.
struct rto_extRoute_msg {
  uint32_t action; // RtoRouteAction, which says the layout of the rest
  union {
    ExtRoute ipv4;
    ExtRoute6 ipv6;
  };
};

extern osapiMsgQueue *extRouteQueue; // pointers to messages; null outside rtoNetlinkInit() and rtoNetlinkFini()

// ---- counters

extern Counter numExtRouteAdds;
extern Counter numExtRouteAddErrors;
extern Counter numExtRouteDeletes;
extern Counter numExtRouteDeleteErrors;
extern Counter numExtRouteQueueDrops;
extern Counter numExtRouteInvalid;
extern Counter numRtoNetlinkRxErrors;

void rtoNetlinkStatsShow(ShowForm form);
void rtoNetlinkStatsClear();

// ---- start and end

// Creates the queue and starts both threads; a failure ends the process. Always 0.
int rtoNetlinkInit();

// Deletes the queue, if there is one; always 0. No thread may be using it.
int rtoNetlinkFini();

// ---- the listener, on its thread

struct RtoNetlinkHandle {
  int fd = -1;
  uint32_t port = 0;        // as the kernel assigned it
  uint32_t timeoutMsec = 0; // of a receive, 0 = none
  uint32_t sequence = 0;    // of requests; starts with the time of the set-up
};

// The thread: sets the socket up, listens, and starts again when that fails.
void *rtoNetlinkLinuxUpdatesHandler(void *);

// Returns when the thread has tried for the first time to set its socket up.
void rtoNetlinkSetUpAwait();

// Opens and binds a netlink socket. Returns 0, or 1 after logging why, with nothing left open.
int rtoNetlinkSocketOpen(RtoNetlinkHandle *handle, uint32_t groups, int protocol);
void rtoNetlinkSocketClose(RtoNetlinkHandle *handle);

using RtoMessageHandler = int (*)(const NetlinkMessage &message);

// Receives and hands each message to the handler until something is wrong, which is logged: 1 for an end of file or a
// truncated message, 2 for another malformed one, or the handler's result that was not 0.
int rtoNetlinkListen(RtoNetlinkHandle *handle, RtoMessageHandler handler);

// The messages of one datagram, with the flags of its receive. Returns 0 if it was sound or only cut behind a message, else
// what the listen ends with.
int rtoDatagramProcess(NetlinkBytes datagram, int flags, RtoMessageHandler handler);

// Passes a route notification on if it is of the main table and another program's; always 0.
int rtoAcceptMsg(const NetlinkMessage &message);

// Whether the message is of the main table and not the agent's own. Stores its header.
bool rtoRouteIsForeign(const NetlinkMessage &message, rtmsg *header);

// Turns a route message into the task's and queues it. The action is that of IPv4, whatever the family. A route that finds
// no room in the queue is dropped and counted, and a resync requested.
void rtoExternalRouteProcess(const NetlinkMessage &message, uint32_t action);

// The same for a route of a dump, which is neither counted nor logged. Returns false if it could not be passed on.
bool rtoDumpedRouteProcess(const NetlinkMessage &message);

// Queues a message without waiting. Returns false if there is no room; the message is gone then.
bool rtoMessageSend(std::unique_ptr<rto_extRoute_msg> msg);

// ---- resync, after a loss

// Asks the listener for a dump of the kernel's main table, by which the task finds what RTO lacks and what it holds too
// much. Listener's thread; requests that come before the dump begins are one.
void rtoResyncRequest();

// The same from any thread, for a report that failed: also wakes the listener, by a message to its socket that means nothing.
void rtoResyncRequestAndWake();

extern std::atomic<uint32_t> rtoListenerPort; // of the listener's netlink socket; 0 = there is none

extern uint32_t rtoWithdrawalCount; // IPv6 withdrawals that the listener has read; its own

// ---- the task, on its thread

void *qv_extRouteProc_task(void *);

// Reports one message to RTO, if RTO does not have it from a resync, counts and logs the outcome.
void rtoExternalRouteReport(const rto_extRoute_msg &msg);

// After the end of a dump: withdraws one route that RTO holds and the kernel does not. Returns whether there may be more.
bool rtoWithdrawNext();

// What became of a report.
enum RtoStatus : int32_t { RTO_DONE = 0, RTO_FAILURE = 1, RTO_REFUSED = 5, RTO_EXISTS = 6, RTO_FULL = 7 };

RtoStatus mirelToRtoRouteAdd(const ExtRoute &route);
RtoStatus mirelToRtoRouteDelete(const ExtRoute &route);
RtoStatus mirelToRtoRoute6Add(const ExtRoute6 &route);
RtoStatus mirelToRtoRoute6Delete(const ExtRoute6 &route);
