// Start-up: turns a fresh process into the mirror agent of one VRF, in a fixed order, and enters the main loop. Main
// thread. Until the VRF's name is known, logs carry its number. Nothing is torn down: a failed step leaves what was
// created before it to the end of the process.

#include "mirel.h"

#include "kernel_setting.h"
#include "mirel_arp.h"
#include "mirel_best_route.h"
#include "mirel_debug.h"
#include "mirel_restart.h"
#include "mirel_route_types.h"
#include "mirel_router.h"
#include "mirel_router_table.h"
#include "mirel_rpc.h"
#include "mirel_trace.h"
#include "rto_netlink.h"
#include "snmp_monitor.h"
#include "vr_ipslaprobe_util.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel";
constexpr const char *OPERATION = "main"; // the name in every trace of start-up

constexpr const char *AGENT_NAME = "mirel";
constexpr uint32_t SERVICE_ARG1 = 1; // the platform's own meaning
constexpr uint32_t SERVICE_ARG2 = 2001;
constexpr uint32_t CONNECTIVITY_RETRY_MSEC = 1000;
constexpr unsigned DATAGRAM_QUEUE_LENGTH = 1024;

enum ExitStatus { EXIT_FATAL = 0, EXIT_USAGE = 1, EXIT_NO_PLATFORM = 2, EXIT_OTHER_AGENT = 3 };

// A descriptor 0 to 2 that was closed would be given to the first socket, which traces and logs would then write to.
void standardDescriptorsOpen() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR); // NOLINT(android-cloexec-open): what the agent runs needs them as much
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) {
    close(fd);
  }
}

// Ends the process unless the command line names a service. Every argument but these two options names one.
void optionsServe(int argc, char **argv) {
  constexpr char USAGE[] = "usage: mirel NAME-VRF | --help | --version\n"
                           "  VRF  number of the VRF to mirror; a NAME without a hyphen serves VRF 0\n";
  if (argc < 2) {
    fputs(USAGE, stderr);
    exit(EXIT_USAGE);
  }
  if (strcmp(argv[1], "--help") == 0) {
    fputs(USAGE, stdout);
    exit(EXIT_SUCCESS);
  }
  if (strcmp(argv[1], "--version") == 0) {
    puts("mirel " MIREL_VERSION);
    exit(EXIT_SUCCESS);
  }
}

void contextClear() {
  bestRouteChangePending = 0;
  mirelVrfId = 0;
  memset(mirelVrfName, 0, sizeof mirelVrfName);
}

// A second agent would take the first one's sockets and flush its routes.
void otherAgentRefuse() {
  uint32_t other = 0;
  if (!mirelAgentLock(&other)) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "another agent of VRF %u runs (pid %u)",
                mirelVrfId, other);
    exit(EXIT_OTHER_AGENT);
  }
}

void clientNameFormat() {
  static char clientName[32];
  snprintf(clientName, sizeof clientName, "%s:%u", AGENT_NAME, mirelVrfId);
  clientNameDesc = {.size = static_cast<uint32_t>(strlen(clientName) + 1), .pstart = clientName};
}

void syncDatabaseRegister() {
  if (syncdbClientRegister(AGENT_NAME, &syncdbClient) != 0) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "VRF-ID %u: SyncDB Registration failed for Mirel",
                mirelVrfId);
    abort();
  }
}

void apiSemaphoreCreate() {
  mirelApiSema = osapiSemaMCreateTrack(LOG_AREA, __LINE__, 1);
  if (mirelApiSema == nullptr) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "Error initializing Mirel TarnApi semaphore.\n");
    abort();
  }
}

// Serves from here on; false when there is no server.
bool rpcServerStart() {
  rpcsrvCfg cfg{};
  rpcsrvSockAddrInit(&cfg.address, mirelVrfId, MIREL_RPC_SERVICE);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Mirel initialized the server addr:%s, family:%d for VRF %d\n",
              cfg.address.sun_path, cfg.address.sun_family, mirelVrfId);
  if (rpcsrvInit(MIREL_RPC_INSTANCE, 1, cfg) == 0) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "VRF-ID %u: gen RPC server creation failed.",
                mirelVrfId);
    return false;
  }
  rpcsrvProgramRegister(MIREL_RPC_INSTANCE, MIREL_RPC_PROGRAM, mirelRpcProcTableGet());
  return true;
}

void platformClientRegister() {
  const int32_t result = tarnapiServiceClientRegister(AGENT_NAME, SERVICE_ARG1, SERVICE_ARG2, &tarnapiClientHandle);
  if (result != TARN_OK) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__,
                "VRF-ID %u: Failed to initialize RPC to Tarn. Exiting (result = %d)", mirelVrfId, result);
    exit(EXIT_NO_PLATFORM);
  }
}

void platformWait() {
  while (rpcclt_tarnapiConnectivityCheck(tarnapiClientHandle) != 0) {
    osapiSleepMSec(CONNECTIVITY_RETRY_MSEC);
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully connected to RPC Server\n");
}

void vrfNameRead() {
  const tarn_buffdesc name{.size = sizeof mirelVrfName, .pstart = mirelVrfName};
  const int32_t status = rpcclt_tarnapiVrfNameGet(tarnapiClientHandle, mirelVrfId, &name);
  mirelVrfName[sizeof mirelVrfName - 1] = '\0'; // a name that fills the buffer comes without
  if (status != TARN_OK) {
    qvproc_logf(SEVERITY_ERROR, COMPONENT_MIREL, LOG_AREA, __LINE__, "VRF-ID %u: Failed to get the vrf-name.",
                mirelVrfId);
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "vrf-name:%s for vrf-id:%u\n", mirelVrfName, mirelVrfId);
}

void restartCheck() {
  if (mirelRestartStatusGet() != 0) {
    MIREL_LOG(SEVERITY_WARNING, "Mirel process restarted. VRF ID = %u, PID = %u", mirelVrfId, mirelPid);
    mirelKernelRoutesFlush();
    return;
  }
  if (mirelRestartStatusSet(mirelVrfId, &syncdbClient, 1) != 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to set the Restart Status flag in SyncDB for VRF Id - %u\n",
                mirelVrfId);
  }
}

// The default VRF's loopback belongs to the switch itself.
void loopbackUp() {
  if (mirelVrfId != 0) {
    [[maybe_unused]] const int ignored = system("ifconfig lo up");
  }
}

// A local datagram socket takes the queue length of the namespace at its creation, 11 datagrams by default whatever its
// receive buffer.
void datagramQueueRaise() {
  kernelSettingRaise("/proc/sys/net/unix/max_dgram_qlen", DATAGRAM_QUEUE_LENGTH);
}

void arpSocketCreate() {
  if (mirelCreateArpSock(&arp_sock_fd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to create the Mirel ARP socket.");
    return;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Successfully created Mirel ARP socket\n");
}

void arpNetlinkInit() {
  mirelArpNetlinkInit(&arpd_nl_fd);
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "arpd netlink socket %d has been SUCCESSFULLY setup.\n", arpd_nl_fd.get());
}

void statisticsMonitorStart() {
  const int error = pthread_create(&snmpMonitorThread, nullptr, snmpMonitorTask, nullptr);
  if (error != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to create snmp proc monitor thread. Error %d.", error);
    exit(EXIT_FATAL);
  }
}

void kernelUpdateSocketInit() {
  if (procOsapiRouteNetlinkSocketInit(&routeNetlinkSock) != 0) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION,
                "Failed to initialize the Mirel netlink socket for updates to Kernel (VRF namespce).\n");
    MIREL_LOG(SEVERITY_ERROR, "Failed to initialize the Mirel netlink socket for updates to Kernel (VRF namespce).");
    exit(EXIT_FATAL);
  }
  MIREL_TRACE(TRACE_RTO_SUCCESS, OPERATION,
              "Successfully initialized the Mirel netlink socket for updates to Kernel (VRF namespce).\n");
}

void routeImportStart() {
  rtoNetlinkInit();
  MIREL_TRACE(TRACE_RTO_SUCCESS, OPERATION,
              "Successfully created threads to handle Kernel to DX Route notifications.\n");
}

void probeAgentInit() {
  const uint32_t result = vrIpSlaProbeAgentProcessInit();
  if (result != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to Initializes the VR IPSLA Probe Agent application. Error %d.", result);
    exit(EXIT_FATAL);
  }
  MIREL_LOG(SEVERITY_DEBUG, "Successfully Initialized the VR IPSLA Probe Agent application.");
}

void routeTypesRegister() {
  if (vrfRouteTypesRegister() != 0) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Failed to register Route Types with TARN RTO.\n");
    MIREL_LOG(SEVERITY_ERROR, "Failed to register Route Types with TARN RTO.");
    return;
  }
  MIREL_TRACE(TRACE_RTO_SUCCESS, OPERATION, "Route Types Registration with TARN RTO successfully done.\n");
}

void routerEventsStart() {
  rppi_evnt_client_id = 0;
  rppi_evnt_fd = -1;
  if (mirelRouterEventClientStart(mirelPid, &clientNameDesc, &rppi_evnt_client_id, &rppi_evnt_fd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Mirel failed to register to router event client.");
  }
  const uint32_t clientId = rppi_evnt_client_id;
  const int sockFd = rppi_evnt_fd;
  if (clientId == 0 || sockFd == -1) {
    MIREL_LOG(SEVERITY_ERROR, "Mirel: Failure in router event client registration. Client id = %d, sock fd = %d",
              clientId, sockFd);
    exit(EXIT_FATAL);
  }
}

bool routingStarted() {
  uint32_t status = 0;
  const int32_t result =
      rpcclt_tarnapiRoutingStartupStatusVr(tarnapiClientHandle, TARN_FAMILY_IPV4, mirelVrfId, &status);
  if (result != TARN_OK) {
    MIREL_LOG(SEVERITY_INFO, "Mirel failed to retrieve TARN initialization status.mirel process exiting. Error %d.",
              result);
    exit(EXIT_FATAL);
  }
  return status != 0;
}

void bestRoutesStart() {
  if (mirelBestRouteClientStart(mirelPid, &clientNameDesc, &brc_client_id, &brc_sock_fd) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Mirel failed to register to best route service.");
  }
  if (!mirelBestRouteClientStarted(OPERATION)) {
    exit(EXIT_FATAL);
  }
}

} // namespace

uint32_t mirelVrfIdFromArgument(const char *argument) {
  const char *hyphen = strrchr(argument, '-');
  return hyphen != nullptr ? static_cast<uint32_t>(strtol(hyphen + 1, nullptr, 10)) : 0;
}

int main(int argc, char **argv) {
  standardDescriptorsOpen();
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  signal(SIGPIPE, SIG_IGN); // a reader of its output that goes takes nothing with it
  optionsServe(argc, argv);

  contextClear();
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Spawned process Mirel\n");
  mirelShellOperationsRegister();
  qvproc_devshell_init();
  mirelPid = static_cast<uint32_t>(getpid());
  mirelVrfId = mirelVrfIdFromArgument(argv[1]);
  otherAgentRefuse();
  clientNameFormat();
  syncDatabaseRegister();
  apiSemaphoreCreate();
  datagramQueueRaise();
  if (!rpcServerStart()) {
    return EXIT_FATAL;
  }
  platformClientRegister();
  platformWait();
  vrfNameRead();
  restartCheck();
  loopbackUp();
  arpSocketCreate();
  arpNetlinkInit();
  statisticsMonitorStart();
  kernelUpdateSocketInit();
  routeImportStart();
  probeAgentInit();
  mirelRpcControlsOpen();
  mirelIntIfInfoAllocate();
  routeTypesRegister();
  routerEventsStart();

  brc_client_id = 0;
  brc_sock_fd = -1;
  mirelGlobalCfgInit();
  statsHandle = MirelStats{};
  if (routingStarted()) {
    mirelPopulateRoutingInterfaceTable();
    bestRoutesStart();
  }
  mirelMainLoop();
}
