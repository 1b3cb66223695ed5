// The debug operations. They read the context while the main thread works on it, and may print a mixture of old and new
// values.

#include "mirel_debug.h"

#include "mirel_context.h"
#include "mirel_router_event.h"

#include <cstdio>
#include <vector>

namespace {

constexpr uint32_t RTO_DEBUG_ALL = 15;

uint32_t eventCount(uint32_t msgType) {
  return msgType <= MIREL_EVENT_TYPE_MAX ? statsHandle.eventCount[msgType].get() : 0;
}

std::string eventLabel(const char *enumName) {
  char label[64];
  snprintf(label, sizeof label, "%-32s: ", enumName);
  return label;
}

void intfEventCountPrint(ShowOutput &out, uint32_t intIfNum) {
  std::vector<ShowRow> rows = {{"\n The number of events received on interface-", "interface", intIfNum, " for \n"}};
  for (const RouterEventType &row : mirelRouterEventTypes()) {
    if (row.intfCounter == nullptr || row.type == TARNR_RTR_INTF_HOST_MODE) {
      continue; // host mode is counted, but never printed
    }
    const uint32_t count =
        intIfNum <= MIREL_INT_IF_NUM_MAX ? (statsHandle.intfEventCount[intIfNum].*row.intfCounter).get() : 0;
    rows.emplace_back(eventLabel(row.enumName), row.enumName, count);
  }
  out.rows(rows);
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

void mirelStatsShow(ShowForm form) {
  const MirelStats &stats = statsHandle;
  const auto line = [](const char *label, const char *key, const Counter &counter) {
    return ShowRow(label, key, counter.get(), " \n");
  };
  const ShowRow block[] = {
      {"\n#### mirel stats ####\n"},
      line("Arp Req Errors:            ", "numArpReqErrors", stats.numArpReqErrors),
      line("Arp Reqs:                  ", "numArpReqs", stats.numArpReqs),
      line("Arp Resolve Errors:        ", "numArpResolveErrors", stats.numArpResolveErrors),
      line("Arp Resolves:              ", "numArpResolves", stats.numArpResolves),
      line("Kernel Arp Adds received:  ", "numKernelArpAddsRcvd", stats.numKernelArpAddsRcvd),
      line("Kernel Arp Dels received:  ", "numKernelArpDelsRcvd", stats.numKernelArpDelsRcvd),
      line("Kernel Arp Adds processed: ", "numKernelArpAddsProcessed", stats.numKernelArpAddsProcessed),
      line("Kernel Arp Dels processed:  ", "numKernelArpDelsProcessed", stats.numKernelArpDelsProcessed),
      line("Routes Added:              ", "numRoutesAdded", stats.numRoutesAdded),
      line("Route Add Errors:          ", "numRouteAddErrors", stats.numRouteAddErrors),
      line("Routes Deleted:            ", "numRoutesDeleted", stats.numRoutesDeleted),
      line("Route Delete Errors:       ", "numRouteDeleteErrors", stats.numRouteDeleteErrors),
      line("Routes Modified:           ", "numRoutesModified", stats.numRoutesModified),
      line("Route Modify Errors:       ", "numRouteModifyErrors", stats.numRouteModifyErrors),
      line("RPC Errors:                ", "numRpcErrors", stats.numRpcErrors),
      line("Stack errors:              ", "numStackErrors", stats.numStackErrors),
  };
  ShowOutput out(form, ShowOutput::ONE_RECORD);
  out.rows(block);
  out.row(line("Active Routes:             ", "numActiveRoutes", stats.numActiveRoutes));
  out.row(line("Rtr Event Client Timeouts: ", "numRecTimeout", stats.numRecTimeout));
  out.row(line("Best Rt Client Timeouts:   ", "numBrcTimeout", stats.numBrcTimeout));
}

void mirelEventCountShow(uint32_t msgType, ShowForm form) {
  ShowOutput out(form, ShowOutput::ONE_RECORD);
  out.row({"\n The number of events received for \n"});
  if (msgType != 0) {
    out.row({"", "type", msgType});
    out.row({"the given message type : ", "count", eventCount(msgType)});
    return;
  }
  for (const RouterEventType &row : mirelRouterEventTypes()) {
    if (row.hasFixedRow) {
      out.row({eventLabel(row.enumName), row.enumName, eventCount(row.type)});
    }
  }
}

void mirelIntfEventCountShow(uint32_t intIfNum, ShowForm form) {
  if (intIfNum != 0) {
    ShowOutput out(form, ShowOutput::ONE_RECORD);
    intfEventCountPrint(out, intIfNum);
  } else {
    ShowOutput out(form, ShowOutput::LIST);
    for (uint32_t number = 1; number <= MIREL_INT_IF_NUM_MAX; ++number) {
      out.record();
      intfEventCountPrint(out, number);
    }
  }
  fflush(stdout);
}

void mirelStatsClear() {
  static_cast<MirelEventStats &>(statsHandle) = MirelEventStats{};
}

void mirelBestRouteClientShow(ShowForm form) {
  const ShowRow rows[] = {
      {"\n"},
      {"currentGetTime()          : ", "currentGetTime", currentGetTime()},
      {"brc_client_keepalive_time : ", "brc_client_keepalive_time", brc_client_keepalive_time},
      {"mirelBestRouteApplyTime : ", "mirelBestRouteApplyTime", mirelBestRouteApplyTime},
      {"bestRouteChangePending    : ", "bestRouteChangePending", bestRouteChangePending},
      {"mirelBestRoutePollTime  : ", "mirelBestRoutePollTime", mirelBestRoutePollTime},
      {"statsHandle.numBrcTimeout : ", "numBrcTimeout", statsHandle.numBrcTimeout},
      {"brc_client_id             : ", "brc_client_id", brc_client_id},
      {"brc_sock_fd               : ", "brc_sock_fd", brc_sock_fd},
      {"\n"},
  };
  ShowOutput(form, ShowOutput::ONE_RECORD).rows(rows);
}

void mirelRouterEventClientShow(ShowForm form) {
  const ShowRow rows[] = {
      {"\n"},
      {"currentGetTime()          : ", "currentGetTime", currentGetTime()},
      {"rppi_evnt_keepalive_time  : ", "rppi_evnt_keepalive_time", rppi_evnt_keepalive_time},
      {"statsHandle.numRecTimeout : ", "numRecTimeout", statsHandle.numRecTimeout},
      {"rppi_evnt_fd              : ", "rppi_evnt_fd", rppi_evnt_fd},
      {"rppi_evnt_client_id       : ", "rppi_evnt_client_id", rppi_evnt_client_id},
      {"\n"},
  };
  ShowOutput(form, ShowOutput::ONE_RECORD).rows(rows);
}
