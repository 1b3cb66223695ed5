// The agent's context. Start-up fills it on the main thread; nothing tears it down, the process ends with it. All of it is
// trivially destructible, since the process may exit while threads run.

#include "mirel_context.h"

#include "mirel_trace.h"

uint32_t mirelVrfId = 0;
char mirelVrfName[MIREL_VRF_NAME_SIZE] = {};
uint32_t mirelPid = 0;
tarn_buffdesc clientNameDesc = {};
tarnapiClient *tarnapiClientHandle = nullptr;
osapiSema *mirelApiSema = nullptr;
SyncdbClient syncdbClient = {};
RouteNetlinkSock routeNetlinkSock = {.fd = -1, .seq = 0, .name = "netlink-request_dx-to-kernel"};

Relaxed<int> rppi_evnt_fd = -1;
Relaxed<int> brc_sock_fd = -1;
Relaxed<int> arp_sock_fd = -1;
Relaxed<int> arpd_nl_fd = -1;

Relaxed<uint32_t> rppi_evnt_client_id;
Relaxed<uint32_t> brc_client_id;
Relaxed<uint32_t> rppi_evnt_keepalive_time;
Relaxed<uint32_t> brc_client_keepalive_time;
Relaxed<uint32_t> bestRouteChangePending;

Relaxed<uint32_t> mirelBestRoutePollTime = 10;
Relaxed<uint32_t> mirelBestRouteApplyTime = 1;
Relaxed<uint32_t> mirelDebugFlags;
Relaxed<uint32_t> rtoDebugMask;

MirelStats statsHandle;

uint32_t mirelVrfIdGet() {
  return mirelVrfId;
}

int mirelVrfIdDiffers(uint32_t vrfId) {
  return vrfId != mirelVrfId ? 1 : 0;
}

void mirelEventCountIncrement(uint32_t msgType) {
  if (msgType <= MIREL_EVENT_TYPE_MAX) {
    ++statsHandle.eventCount[msgType];
  }
}

void mirelSyncDbCfgChangeHandle() {
  mirelTracePrint(TRACE_GENERAL, __LINE__, "mirelSyncDbCfgChangeHandle", "Received a syncDb event\n");
}
