// The agent around the code that is fuzzed. The targets run in a network namespace of their own, and the requests about
// devices and neighbours never reach the kernel: its neighbour table is one for all namespaces.

#include "agent.h"

#include "mirel_arp.h"
#include "mirel_context.h"
#include "mirel_router_table.h"
#include "rto_netlink.h"
#include "scripted.h"
#include "vr_ipslaprobe_util.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <net/if.h>
#include <net/if_arp.h>
#include <sched.h>
#include <sys/ioctl.h>

namespace {

constexpr uint32_t KERNEL_DEVICES = 64; // rt1 has the index 1
constexpr uint32_t INTERFACE = 5;       // the interface whose device the platform calls rt1
constexpr uint32_t QUEUE_LENGTH = 1024;

char clientName[] = "mirel:3";

template <class Record> Record copied(const void *at) {
  Record record;
  memcpy(&record, at, sizeof record);
  return record;
}

int deviceName(void *request) {
  auto device = copied<ifreq>(request);
  const auto index = static_cast<uint32_t>(device.ifr_ifindex);
  if (index == 0 || index > KERNEL_DEVICES) {
    errno = ENODEV;
    return -1;
  }
  snprintf(device.ifr_name, sizeof device.ifr_name, "rt%u", index);
  memcpy(request, &device, sizeof device);
  return 0;
}

int deviceIndex(void *request) {
  auto device = copied<ifreq>(request);
  unsigned index = 0;
  if (memchr(device.ifr_name, '\0', sizeof device.ifr_name) == nullptr ||
      sscanf(device.ifr_name, "rt%u", &index) != 1) {
    errno = ENODEV;
    return -1;
  }
  device.ifr_ifindex = static_cast<int>(index);
  memcpy(request, &device, sizeof device);
  return 0;
}

int hardwareAddress(void *request) {
  auto device = copied<ifreq>(request);
  device.ifr_hwaddr = {.sa_family = ARPHRD_ETHER, .sa_data = {}};
  memcpy(request, &device, sizeof device);
  return 0;
}

// The kernel reads the whole of it, and a name without an end as one.
int neighbourWrite(const void *request) {
  const auto entry = copied<arpreq>(request);
  if (entry.arp_pa.sa_family != AF_INET || memchr(entry.arp_dev, '\0', sizeof entry.arp_dev) == nullptr) {
    abort();
  }
  return 0;
}

} // namespace

extern "C" int __wrap_ioctl(int, unsigned long request, void *record) { // the linker's name for it
  switch (request) {
  case SIOCGIFNAME:
    return deviceName(record);
  case SIOCGIFINDEX:
    return deviceIndex(record);
  case SIOCGIFHWADDR:
    return hardwareAddress(record);
  case SIOCSARP:
    return neighbourWrite(record);
  default:
    errno = ENOTTY;
    return -1;
  }
}

void agentSetUp() {
  if (unshare(CLONE_NEWNET) != 0 || freopen("/dev/null", "w", stdout) == nullptr) {
    perror("fuzz: no network namespace of its own");
    exit(EXIT_FAILURE);
  }
  tarnapiServiceClientRegister("fuzz", 1, 1, &tarnapiClientHandle);
  mirelApiSema = osapiSemaMCreate(0);
  mirelVrfId = 3;
  snprintf(mirelVrfName, sizeof mirelVrfName, "blue");
  clientNameDesc = {.size = sizeof clientName, .pstart = clientName};
  routeNetlinkSock.fd = -1;
  mirelDebugFlags = UINT32_MAX;
  rtoDebugMask = UINT32_MAX;
  probeAgentDebugSet(1);
  extRouteQueue = osapiMsgQueueCreate("Ext route_queue", QUEUE_LENGTH, sizeof(void *));
  if (mirelIntIfInfoAllocate() != 0 || mirelIntfParmsPopulate(INTERFACE) != 0 || vrIpSlaProbeAgentProcessInit() != 0) {
    fprintf(stderr, "fuzz: the agent cannot be set up\n");
    exit(EXIT_FAILURE);
  }
  agentInputEnd();
}

void agentInputEnd() {
  scripted::takeCalls();
}
