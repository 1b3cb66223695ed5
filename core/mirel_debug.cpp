// The debug operations. They read the context while the main thread works on it, and may print a mixture of old and new
// values.

#include "mirel_debug.h"

#include "mirel_context.h"
#include "mirel_router_event.h"

#include <cstdio>

namespace {

constexpr uint32_t RTO_DEBUG_ALL = 15;

uint32_t eventCount(uint32_t msgType) {
  return msgType <= MIREL_EVENT_TYPE_MAX ? statsHandle.eventCount[msgType].get() : 0;
}

void intfEventCountPrint(uint32_t intIfNum) {
  printf("\n The number of events received on interface-%u for \n", intIfNum);
  for (const RouterEventType &row : mirelRouterEventTypes()) {
    if (row.intfCounter == nullptr || row.type == TARNR_RTR_INTF_HOST_MODE) {
      continue; // host mode is counted, but never printed
    }
    const uint32_t count =
        intIfNum <= MIREL_INT_IF_NUM_MAX ? (statsHandle.intfEventCount[intIfNum].*row.intfCounter).get() : 0;
    printf("%-32s: %u\n", row.enumName, count);
  }
}

} // namespace

void mirelDebugFlagsSet(uint32_t mask) {
  mirelDebugFlags = mask;
}

uint32_t mirelDebugFlagsGet() {
  return mirelDebugFlags;
}

void rtoDebugMaskSet(uint32_t mask) {
  if (mask == rtoDebugMask) {
    printf("\r\nAlready Enabled");
    return;
  }
  rtoDebugMask = mask;
}

uint32_t rtoDebugMaskGet() {
  return rtoDebugMask;
}

void rtoDebugDisableAll() {
  rtoDebugMask = 0;
}

void rtoDebugEnableAll() {
  rtoDebugMask = RTO_DEBUG_ALL;
}

void mirelBestRoutePollTimeSet(uint32_t seconds) {
  mirelBestRoutePollTime = seconds;
}

void mirelBestRouteApplyTimeSet(uint32_t seconds) {
  mirelBestRouteApplyTime = seconds;
}

void mirelStatsShow() {
  const MirelStats &stats = statsHandle;
  printf("\n#### mirel stats ####\n"
         "Arp Req Errors:            %u \n"
         "Arp Reqs:                  %u \n"
         "Arp Resolve Errors:        %u \n"
         "Arp Resolves:              %u \n"
         "Kernel Arp Adds received:  %u \n"
         "Kernel Arp Dels received:  %u \n"
         "Kernel Arp Adds processed: %u \n"
         "Kernel Arp Dels processed:  %u \n"
         "Routes Added:              %u \n"
         "Route Add Errors:          %u \n"
         "Routes Deleted:            %u \n"
         "Route Delete Errors:       %u \n"
         "Routes Modified:           %u \n"
         "Route Modify Errors:       %u \n"
         "RPC Errors:                %u \n"
         "Stack errors:              %u \n",
         stats.numArpReqErrors.get(), stats.numArpReqs.get(), stats.numArpResolveErrors.get(),
         stats.numArpResolves.get(), stats.numKernelArpAddsRcvd.get(), stats.numKernelArpDelsRcvd.get(),
         stats.numKernelArpAddsProcessed.get(), stats.numKernelArpDelsProcessed.get(), stats.numRoutesAdded.get(),
         stats.numRouteAddErrors.get(), stats.numRoutesDeleted.get(), stats.numRouteDeleteErrors.get(),
         stats.numRoutesModified.get(), stats.numRouteModifyErrors.get(), stats.numRpcErrors.get(),
         stats.numStackErrors.get());
  printf("Active Routes:             %u \n", stats.numActiveRoutes.get());
  printf("Rtr Event Client Timeouts: %u \n", stats.numRecTimeout.get());
  printf("Best Rt Client Timeouts:   %u \n", stats.numBrcTimeout.get());
}

void mirelEventCountShow(uint32_t msgType) {
  printf("\n The number of events received for \n");
  if (msgType != 0) {
    printf("the given message type : %u\n", eventCount(msgType));
    return;
  }
  for (const RouterEventType &row : mirelRouterEventTypes()) {
    if (row.hasFixedRow) {
      printf("%-32s: %u\n", row.enumName, eventCount(row.type));
    }
  }
}

void mirelIntfEventCountShow(uint32_t intIfNum) {
  if (intIfNum != 0) {
    intfEventCountPrint(intIfNum);
  } else {
    for (uint32_t number = 1; number <= MIREL_INT_IF_NUM_MAX; ++number) {
      intfEventCountPrint(number);
    }
  }
  fflush(stdout);
}

void mirelStatsClear() {
  static_cast<MirelEventStats &>(statsHandle) = MirelEventStats{};
}

void mirelBestRouteClientShow() {
  printf("\n");
  printf("currentGetTime()          : %u\n", currentGetTime());
  printf("brc_client_keepalive_time : %u\n", brc_client_keepalive_time.get());
  printf("mirelBestRouteApplyTime : %u\n", mirelBestRouteApplyTime.get());
  printf("bestRouteChangePending    : %u\n", bestRouteChangePending.get());
  printf("mirelBestRoutePollTime  : %u\n", mirelBestRoutePollTime.get());
  printf("statsHandle.numBrcTimeout : %u\n", statsHandle.numBrcTimeout.get());
  printf("brc_client_id             : %u\n", brc_client_id.get());
  printf("brc_sock_fd               : %d\n", brc_sock_fd.get());
  printf("\n");
}

void mirelRouterEventClientShow() {
  printf("\n");
  printf("currentGetTime()          : %u\n", currentGetTime());
  printf("rppi_evnt_keepalive_time  : %u\n", rppi_evnt_keepalive_time.get());
  printf("statsHandle.numRecTimeout : %u\n", statsHandle.numRecTimeout.get());
  printf("rppi_evnt_fd              : %d\n", rppi_evnt_fd.get());
  printf("rppi_evnt_client_id       : %u\n", rppi_evnt_client_id.get());
  printf("\n");
}
