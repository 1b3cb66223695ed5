// Configuration changes: the sub-events of the configuration event, and the ICMP settings of the whole VRF. Main thread.

#include "mirel_router.h"

#include "api_lock.h"
#include "mirel_router_event.h"
#include "mirel_trace.h"

#include <algorithm>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

constexpr uint32_t ECHO_REPLIES_ENABLED = 1;
constexpr uint32_t ANSWER_BROADCAST_ECHO = 0;

int ratelimitEvent(const RppiEventMsg *) {
  return mirelRtrRatelimitHandler();
}

int echoReplyEvent(const RppiEventMsg *) {
  return mirelRtrEchoReplyHandler();
}

struct ConfigEvent {
  uint32_t cfgEvent;
  const char *name; // in the trace of a change that was applied
  int (*handler)(const RppiEventMsg *msg);
};

constexpr ConfigEvent CONFIG_EVENTS[] = {
    {1, "Disable", mirelRtrDisableHandler},
    {2, "ICMP Unreachables mode change", mirelRtrUnreachHandler},
    {3, "ICMP Redirects mode change", mirelRtrRedirectHandler},
    {4, "ICMP Ratelimit change", ratelimitEvent},
    {5, "ICMP ignore echo-req mode change", echoReplyEvent},
    {6, "VRRP IP address add/delete", mirelRtrVrrpIpHandler},
};

tarn_buffdesc vrfNameDesc() {
  return {.size = sizeof mirelVrfName, .pstart = mirelVrfName};
}

} // namespace

int mirelRtrCfgHandler(const RppiEventMsg *msg) {
  constexpr const char *OPERATION = "mirelRtrCfgHandler";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering... for interface %d\n", msg->intIfNum);
  const char *eventName = mirelRouterEventNameGet(msg->msgType);
  const ConfigEvent *event = std::ranges::find(CONFIG_EVENTS, msg->cfgEvent, &ConfigEvent::cfgEvent);
  if (event == std::end(CONFIG_EVENTS)) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Unknown event %u of %s router event for the interface %d\n", msg->cfgEvent,
                eventName, msg->intIfNum);
    return 0;
  }
  if (event->handler(msg) == 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully triggered %s router event for the interface %d\n", event->name,
                msg->intIfNum);
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled %s router event for the interface %d\n", eventName,
                msg->intIfNum);
  }
  return 0;
}

int mirelRtrRatelimitHandler() {
  constexpr const char *OPERATION = "mirelRtrRatelimitHandler";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering... \n");
  const tarn_buffdesc vrfName = vrfNameDesc();
  uint32_t burstSize = 0;
  uint32_t interval = 0;
  if (apiCall(rpcclt_tarnapiRtrICMPRatelimitGet, &vrfName, &burstSize, &interval) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the ICMP rate-limit.");
  } else {
    MIREL_TRACE(TRACE_GENERAL, OPERATION,
                "Successfully read the the ICMP rate-limit - burst-size (%u) and interval (%u) for vrf-id:%u\n",
                burstSize, interval, mirelVrfId);
    if (osapiIpv4IcmpRatelimitSet(burstSize, interval) != 0) {
      MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP rate-limit (burst-size:%x interval:%x.", burstSize, interval);
    } else {
      MIREL_TRACE(TRACE_GENERAL, OPERATION,
                  "Successfully set the the ICMP rate-limit - burst-size (%u) and interval (%u) for vrf-id:%u.\n",
                  burstSize, interval, mirelVrfId);
    }
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled ICMP rate-limit router event.\n");
  return 0;
}

int mirelRtrEchoReplyHandler() {
  constexpr const char *OPERATION = "mirelRtrEchoReplyHandler";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering... \n");
  const tarn_buffdesc vrfName = vrfNameDesc();
  uint32_t mode = 0;
  if (apiCall(rpcclt_tarnapiRtrICMPEchoReplyModeGet, &vrfName, &mode) != TARN_OK) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to get the ICMP echo-reply mode.");
  } else {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully read the the ICMP echo-reply mode (%u) for vrf-id:%u\n", mode,
                mirelVrfId);
    const uint32_t ignore = mode == ECHO_REPLIES_ENABLED ? 0 : 1; // the kernel's setting has the opposite sense
    if (osapiIpv4IcmpIgnoreEchoRequestSet(ignore) != 0) {
      MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP echo-reply mode (%x).", ignore);
    } else {
      MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully set the the ICMP echo-reply mode (%u) for vrf-id:%u\n",
                  ignore, mirelVrfId);
    }
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully handled ICMP ignore echo-request router event.\n");
  return 0;
}

int mirelRtrEchoIgnoreBcastHandler(uint32_t mode) {
  constexpr const char *OPERATION = "mirelRtrEchoIgnoreBcastHandler";
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Entering... \n");
  if (osapiIpv4IcmpEchoIgnoreBcastSet(mode) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the ICMP echo ignore broadcast mode (%u).", mode);
  } else {
    MIREL_TRACE(TRACE_GENERAL, OPERATION,
                "Successfully set the the ICMP echo ignore broadcast mode (%u) for vrf-id:%u\n", mode, mirelVrfId);
  }
  return 0;
}

int mirelGlobalCfgInit() {
  MIREL_TRACE(TRACE_GENERAL, "mirelGlobalCfgInit", "Entering...\n");
  mirelRtrRatelimitHandler();
  mirelRtrEchoReplyHandler();
  mirelRtrEchoIgnoreBcastHandler(ANSWER_BROADCAST_ECHO);
  return 0;
}
