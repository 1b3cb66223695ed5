// The best-route client: registration with RTO, its event socket, and what happens when RTO falls silent. It fetches
// nothing: a change notification only marks changes pending. Main thread.

#include "event_client.h"
#include "mirel_best_route.h"
#include "mirel_router_event.h"
#include "mirel_trace.h"

#include <unistd.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel";

constexpr const char *BEST_ROUTE_SOCKET_PATH = "/tmp/rppi_brc.%04u";

void refusalLog(int32_t status) {
  switch (status) {
  case TARN_EXISTS:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Client name already registered");
    break;
  case TARN_FULL:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Client list already full");
    break;
  default:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Other failure");
    break;
  }
}

} // namespace

int mirelBestRouteClientStart(uint32_t pid, const tarn_buffdesc *clientName, Relaxed<uint32_t> *clientId,
                              Relaxed<int> *sockFd) {
  const int32_t status = eventClientRegister(clientId, [&](uint32_t *id) {
    return rpcclt_tarnapiBestRouteEventRegisterVr(tarnapiClientHandle, mirelVrfId, TARN_FAMILY_IPV4, pid, clientName,
                                                  id);
  });
  if (status != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Mirel: Failed to register as best route change client.");
    refusalLog(status);
    return -1;
  }
  MIREL_TRACE(TRACE_GENERAL, "mirelBestRouteClientStart", "best route client registration successful, client id %p\n",
              static_cast<void *>(clientId));

  if (mirelCreateRppiSock(BEST_ROUTE_SOCKET_PATH, *clientId, sockFd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to create best route client socket.");
    return -1;
  }
  brc_client_keepalive_time = currentGetTime();
  return 0;
}

bool mirelBestRouteClientStarted(const char *operation) {
  const uint32_t clientId = brc_client_id;
  const int sockFd = brc_sock_fd;
  if (clientId != 0 && sockFd != -1) {
    return true;
  }
  MIREL_TRACE(TRACE_GENERAL, operation,
              "Best route client registration failed, client id = %u, sock fd = %d. Mirel process exiting.\n", clientId,
              sockFd);
  return false;
}

int mirelHandleBestRouteClientTimeout(uint32_t pid, const tarn_buffdesc *clientName) {
  if (brc_sock_fd == -1) {
    return 0;
  }
  MIREL_TRACE(TRACE_GENERAL, "mirelHandleBestRouteClientTimeout", "Deregistering best route client %s\n",
              clientName->pstart);
  apiCall(rpcclt_tarnapiBestRouteEventDeregister, brc_client_id.get());
  close(brc_sock_fd);
  brc_sock_fd = -1;
  mirelKernelRoutesFlush();
  if (mirelBestRouteClientStart(pid, clientName, &brc_client_id, &brc_sock_fd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Registration failed for BestRouteClient following timeout! mypid = %d, myName = %s", pid,
              clientName->pstart);
    return -1;
  }
  return 0;
}

void mirelBestRouteMsgProcess(const RppiEventMsg &msg) {
  if (msg.msgType == TARNR_KEEPALIVE) {
    brc_client_keepalive_time = currentGetTime();
    return;
  }
  bestRouteChangePending = 1;
}
