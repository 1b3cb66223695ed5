// Best routes: the agent's subscription to RTO, and what it does with the changes that RTO holds for it. Main thread.
#pragma once

#include "mirel_context.h"
#include "rppi_event.h"

// Registers with RTO, retrying every second while the platform is not ready, and creates the event socket. Fills
// *clientId and *sockFd. Returns 0, or -1 after logging why; a registration whose socket failed stays in place.
int mirelBestRouteClientStart(uint32_t pid, const tarn_buffdesc *clientName, Relaxed<uint32_t> *clientId,
                              Relaxed<int> *sockFd);

// Whether mirelBestRouteClientStart() left a client id and a socket; traces for the operation if not.
bool mirelBestRouteClientStarted(const char *operation);

// RTO has been silent too long: registers anew, after emptying the kernel of routes. Returns 0, also when the client was
// not connected, or -1 when it could not register again.
int mirelHandleBestRouteClientTimeout(uint32_t pid, const tarn_buffdesc *clientName);

// Applies one datagram of the best-route socket: a keep-alive refreshes the time, anything else marks changes pending.
void mirelBestRouteMsgProcess(const RppiEventMsg &msg);

// Flaps every link of the namespace that is up and has "rt" in its name, so that the kernel drops the routes through it.
void mirelKernelRoutesFlush();

// Fetches the pending changes in batches and applies them, for mirelBestRouteApplyTime seconds at most; what is left stays
// pending.
void mirelBestRoutesProcess();

inline constexpr uint32_t BEST_ROUTE_BATCH = 50; // records a fetch

// changeType of a BestRouteRecord.
enum RouteChangeType : uint8_t { CHANGE_ADD = 0, CHANGE_DELETE = 1, CHANGE_MODIFY = 2 };

// Traces and counts a record whose "add" or "modify" returned status.
void mirelRouteFailureCount(const char *operation, const char *verb, const BestRouteRecord &record, int32_t status);

// One change. Add and modify return 0 (also for routes that are not installed by rule), 1 when no next hop can be chosen,
// else the status of the kernel install. nextHops points at the record's first next hop, or is null.
int32_t MirelRouteAdd(const BestRouteRecord *route, const NextHopRecord *nextHops);
int32_t MirelRouteMod(const BestRouteRecord *route, const NextHopRecord *nextHops);
void MirelRouteDel(const BestRouteRecord *route);

// Route flags of a kernel install.
enum RouteFlag : uint32_t {
  ROUTE_FLAG_REJECT = 0x10,
  ROUTE_FLAG_VRF_DEVICE = 0x1000,
  ROUTE_FLAG_RFC5549 = 0x2000,
  ROUTE_FLAG_8000 = 0x8000,
  ROUTE_FLAG_MPLS = 0x80000,
  ROUTE_FLAG_KERNEL = 0x400000,
};

// Kernel install and removal. Addresses and masks in host byte order, flags of RouteFlag. Both return 0 without touching
// the kernel while the system is not ready, else the status of the process library.
int32_t mirelKernelRouteAdd(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum, uint32_t flags);
int32_t mirelKernelRouteDelete(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum);
