// The router event client: registration with the routing service, the road of one event from its datagram to its
// acknowledgement, and what happens when the service falls silent. Main thread.

#include "mirel_router.h"

#include "event_client.h"
#include "mirel_best_route.h"
#include "mirel_router_event.h"
#include "mirel_trace.h"

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

constexpr const char *ROUTER_EVENT_SOCKET_PATH = "/tmp/rppi_rec.%04u";
constexpr const char *SERVICE_TAG = "MIREL";

// The types that the service waits for an answer to.
constexpr uint32_t ACKNOWLEDGED_FIRST = 101;
constexpr uint32_t ACKNOWLEDGED_LAST = 299;

void refusalLog(int32_t status) {
  switch (status) {
  case TARN_EXISTS:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Client name already registered");
    break;
  case TARN_FULL:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Client list already full");
    break;
  case TARN_INVALID:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Invalid parameter");
    break;
  case TARN_FAILURE:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "General failure");
    break;
  default:
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Other failure");
    break;
  }
}

void intfEventCount(const RouterEventType &row, uint32_t intIfNum) {
  if (row.intfCounter != nullptr && intIfNum <= MIREL_INT_IF_NUM_MAX) {
    ++(statsHandle.intfEventCount[intIfNum].*row.intfCounter);
  }
}

void eventDispatch(const RppiEventMsg &msg) {
  constexpr const char *OPERATION = "mirelRouterEventMsgProcess";
  const RouterEventType *row = mirelRouterEventTypeFind(msg.msgType);
  const char *name = mirelRouterEventNameGet(msg.msgType);
  if (row == nullptr || row->role == EventRole::UNKNOWN) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Received unknown msg type %s on Router Event Client\n", name);
    return;
  }
  if (row->role == EventRole::NOTED) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Received msg type %s on Router Event Client\n", name);
    return;
  }
  intfEventCount(*row, msg.intIfNum);
  if (row->handler(&msg) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to handle %s router event", name);
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled %s router event\n", name);
}

// The best-route client runs once routing has started.
void bestRouteClientEnsure() {
  if (mirelBestRouteClientStart(mirelPid, &clientNameDesc, &brc_client_id, &brc_sock_fd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Mirel failed to register to best route service.");
  }
}

bool routingStarted() {
  uint32_t status = 0;
  return apiCall(rpcclt_tarnapiRoutingStartupStatusVr, TARN_FAMILY_IPV4, mirelVrfId, &status) == TARN_OK && status != 0;
}

} // namespace

int mirelRouterEventClientStart(uint32_t pid, const tarn_buffdesc *clientName, Relaxed<uint32_t> *clientId,
                                Relaxed<int> *sockFd) {
  constexpr const char *OPERATION = "mirelRouterEventClientStart";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering ...\n");
  const int32_t status = eventClientRegister(clientId, [&](uint32_t *id) {
    return rpcclt_tarnapiRouterEventRegister(tarnapiClientHandle, TARN_FAMILY_IPV4, pid, mirelVrfId, clientName, id);
  });
  if (status != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to register as router event client (err = %d).", status);
    refusalLog(status);
    return -1;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "router event client registration successful, client id %p\n",
              static_cast<void *>(clientId));
  if (mirelCreateRppiSock(ROUTER_EVENT_SOCKET_PATH, *clientId, sockFd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to create router event client socket.");
    return -1;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "router event client sock fd %d\n", sockFd->get());
  rppi_evnt_keepalive_time = currentGetTime();
  return 0;
}

void mirelRouterEventMsgProcess(const RppiEventMsg *msg, uint32_t bytesRead) {
  if (msg->msgLen != bytesRead) {
    MIREL_LOG(SEVERITY_ERROR, "Read %u bytes of message %u from service %s, but message reports its length as %u",
              bytesRead, msg->msgType, SERVICE_TAG, msg->msgLen);
    return;
  }
  mirelEventCountIncrement(msg->msgType);
  if (msg->msgType == TARNR_KEEPALIVE) {
    rppi_evnt_keepalive_time = currentGetTime();
    return;
  }
  eventDispatch(*msg);
  if (msg->msgType >= ACKNOWLEDGED_FIRST && msg->msgType <= ACKNOWLEDGED_LAST) {
    apiCall(rpcclt_tarnapiRouterEventAcknowledge, mirelVrfId, rppi_evnt_client_id.get(), msg->eventSeq);
  }
}

int mirelRtrStartupDoneHandler(const RppiEventMsg *) {
  if (brc_sock_fd != -1) {
    return 0;
  }
  bestRouteClientEnsure();
  if (!mirelBestRouteClientStarted("mirelRouterEventMsgProcess")) {
    exit(0);
  }
  return 0;
}

int mirelRtrEnableEventHandler(const RppiEventMsg *msg) {
  MIREL_TRACE(TRACE_GENERAL, "mirelRouterEventMsgProcess",
              "TARNR_RTR_INTF_ENABLE ##Received msg type %s on Router Event Client\n",
              mirelRouterEventNameGet(msg->msgType));
  return mirelRtrIntfEnableHandler(msg);
}

int mirelRtrEnablePendingHandler(const RppiEventMsg *msg) {
  if (brc_sock_fd != -1) {
    bestRouteChangePending = 1;
    mirelBestRoutesProcess();
  }
  return mirelRtrEnableHandler(msg);
}

int mirelHandleRouterEventClientTimeout(uint32_t pid, const tarn_buffdesc *clientName) {
  MIREL_LOG(SEVERITY_NOTICE, "Deregistering route event client %s", clientName->pstart);
  apiCall(rpcclt_tarnapiRouterEventDeregister, mirelVrfId, rppi_evnt_client_id.get());
  close(rppi_evnt_fd);
  rppi_evnt_fd = -1;
  if (mirelRouterEventClientStart(pid, clientName, &rppi_evnt_client_id, &rppi_evnt_fd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Registration failed for RouterEventClient following timeout! mypid = %d, myName = %s",
              pid, clientName->pstart);
    return -1;
  }
  mirelPopulateRoutingInterfaceTable();
  if (routingStarted() && brc_sock_fd == -1) {
    bestRouteClientEnsure();
    if (brc_client_id == 0 || brc_sock_fd == -1) {
      MIREL_LOG(SEVERITY_ERROR, "Mirel registration for best route servicen not valid");
      mirelBestRouteClientStarted("mirelHandleRouterEventClientTimeout");
      exit(0);
    }
  }
  return 0;
}
