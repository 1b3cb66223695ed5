// The agent's context: one process serves one VRF, so its whole state is process-wide. The main thread writes these
// fields; the type of a field says whether other threads may read it while the agent runs (Relaxed) or only what start-up
// wrote before they began.
#pragma once

#include "osapi.h"
#include "proc_osapi.h"
#include "relaxed.h"
#include "syncdb.h"
#include "tarnapi.h"

#include <array>
#include <cstddef>
#include <cstdint>

// Identity and platform handles.
inline constexpr size_t MIREL_VRF_NAME_SIZE = 65; // 64 characters and a NUL

extern uint32_t mirelVrfId; // 0 = the default VRF
extern char mirelVrfName[MIREL_VRF_NAME_SIZE];
extern uint32_t mirelPid;
extern tarn_buffdesc clientNameDesc; // "mirel:<vrf>", size counts the NUL
extern tarnapiClient *tarnapiClientHandle;
extern osapiSema *mirelApiSema; // held around every platform API call after start-up
extern SyncdbClient syncdbClient;
extern RouteNetlinkSock routeNetlinkSock;

// Event sockets; -1 = there is none.
extern Relaxed<int> rppi_evnt_fd;
extern Relaxed<int> brc_sock_fd;
extern Relaxed<int> arp_sock_fd; // ARP resolutions of the switch
extern Relaxed<int> arpd_nl_fd;  // the kernel's neighbours

// The two event clients. Times are values of currentGetTime(); id 0 = not registered.
extern Relaxed<uint32_t> rppi_evnt_client_id;
extern Relaxed<uint32_t> brc_client_id;
extern Relaxed<uint32_t> rppi_evnt_keepalive_time;
extern Relaxed<uint32_t> brc_client_keepalive_time;
extern Relaxed<uint32_t> bestRouteChangePending;

// The operator's tunables: seconds, and the debug masks.
extern Relaxed<uint32_t> mirelBestRoutePollTime;
extern Relaxed<uint32_t> mirelBestRouteApplyTime;
extern Relaxed<uint32_t> mirelDebugFlags;
extern Relaxed<uint32_t> rtoDebugMask;

inline constexpr uint32_t MIREL_EVENT_TYPE_MAX = 300; // highest message type that has a counter
inline constexpr uint32_t MIREL_INT_IF_NUM_MAX = 1033;

using Counter = Relaxed<uint32_t>;

// Events of one interface, in the order of the per-interface counters.
struct MirelIntfEventStats {
  Counter enablePending;
  Counter disable;
  Counter addrChange;
  Counter mtu;
  Counter bwChange;
  Counter cfgChange;
  Counter hostMode;
};

// What mirelStatsClear() clears.
struct MirelEventStats {
  Counter numArpReqs;
  Counter numArpReqErrors;
  Counter numArpResolves;
  Counter numArpResolveErrors;
  Counter numKernelArpAddsRcvd;
  Counter numKernelArpDelsRcvd;
  Counter numKernelArpAddsProcessed;
  Counter numKernelArpDelsProcessed;
  Counter numRoutesAdded;
  Counter numRouteAddErrors;
  Counter numRoutesDeleted;
  Counter numRouteDeleteErrors;
  Counter numRoutesModified;
  Counter numRouteModifyErrors;
  Counter numStackErrors;
  Counter numRpcErrors;
  Counter numBestRouteGetErrors;
  std::array<Counter, MIREL_EVENT_TYPE_MAX + 1> eventCount;
  std::array<MirelIntfEventStats, MIREL_INT_IF_NUM_MAX + 1> intfEventCount;
  Counter numBrcTimeout;
  Counter numRecTimeout;
};

struct MirelStats : MirelEventStats {
  Counter numActiveRoutes; // routes installed now, not events; may wrap
};

extern MirelStats statsHandle;

// Whole seconds of the monotonic clock, modulo 2^32: compare times by unsigned subtraction.
uint32_t currentGetTime();

uint32_t mirelVrfIdGet();

// 1 if vrfId is not the VRF served, else 0.
int mirelVrfIdDiffers(uint32_t vrfId);

// Counts one event of the type; a type above MIREL_EVENT_TYPE_MAX has no counter and is not counted.
void mirelEventCountIncrement(uint32_t msgType);

// Prints that the sync database has a notification; the caller looks at the debug mask.
void mirelSyncDbCfgChangeHandle();
