// Loaded in front of an agent's libraries by bench/interfaces: measures where its main thread's time goes while interfaces come
// and go. Every call into the platform library counts as waiting for orrin, every call that changes or asks the kernel as
// waiting for the kernel, select() as being idle. The counts stand in the file that INTERFACE_SHARES names, for the bench
// to read and to clear while the agent runs.

#include "osapi.h"
#include "proc_osapi.h"
#include "tarnapi.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

enum Area : uint8_t { ORRIN, KERNEL, IDLE, AREAS };

// As bench/interfaces reads it, in nanoseconds; times of the monotonic clock.
struct Shares {
  std::atomic<uint64_t> spent[AREAS];
  std::atomic<uint64_t> firstCall; // the first into the platform library, 0 = none since the counts were cleared
  std::atomic<uint64_t> lastCall;  // the end of the last
};

Shares *shares = [] {
  static Shares nowhere;
  const char *path = getenv("INTERFACE_SHARES");
  const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
  void *mapped = fd >= 0 ? mmap(nullptr, sizeof(Shares), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (fd >= 0) {
    close(fd);
  }
  return mapped != MAP_FAILED ? static_cast<Shares *>(mapped) : &nowhere;
}();

thread_local int depth = 0;

uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

// Of the main thread, since its last call into the platform library: counts when another follows, for only what lies between
// the first and the last is measured.
uint64_t waiting[AREAS];

// A call of the main thread that none of these functions made itself.
class Span {
public:
  explicit Span(Area area) : area_(area), counts_(depth++ == 0 && getpid() == gettid()), start_(now()) {}
  Span(const Span &) = delete;
  Span &operator=(const Span &) = delete;
  ~Span() {
    --depth;
    if (!counts_) {
      return;
    }
    const uint64_t end = now();
    if (area_ != ORRIN) {
      waiting[area_] += end - start_;
      return;
    }
    uint64_t none = 0;
    const bool first = shares->firstCall.compare_exchange_strong(none, start_);
    for (const Area area : {KERNEL, IDLE}) {
      shares->spent[area].fetch_add(first ? 0 : waiting[area]);
      waiting[area] = 0;
    }
    shares->spent[ORRIN].fetch_add(end - start_);
    shares->lastCall.store(end);
  }

private:
  const Area area_;
  const bool counts_;
  const uint64_t start_;
};

} // namespace

// A definition in front of the real one, which it finds behind itself.
#define TIMED(area, result, name, parameters, arguments)                                                               \
  extern "C" [[gnu::visibility("default")]] result name parameters {                                                   \
    static const auto real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name));                               \
    const Span span(area);                                                                                             \
    return real arguments;                                                                                             \
  }

#define ASKED_OF_ORRIN(name, parameters, arguments) TIMED(ORRIN, int32_t, name, parameters, arguments)
#define DONE_BY_KERNEL(name, parameters, arguments) TIMED(KERNEL, int32_t, name, parameters, arguments)

using Client = tarnapiClient *;
using Buffer = const tarn_buffdesc *;

ASKED_OF_ORRIN(rpcclt_tarnapiRouterEventAcknowledge, (Client c, uint32_t vrf, uint32_t id, uint32_t seq),
               (c, vrf, id, seq))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfTypeGet, (Client c, uint32_t number, uint32_t *type), (c, number, type))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfNameGet, (Client c, uint32_t number, Buffer name), (c, number, name))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfIpStackStkNameGet, (Client c, uint32_t vrf, uint32_t number, Buffer name),
               (c, vrf, number, name))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfIpStackIfNameGet, (Client c, uint32_t number, Buffer name), (c, number, name))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfL3MacAddressGet, (Client c, uint32_t number, Buffer mac), (c, number, mac))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfIpAddrGet, (Client c, uint32_t family, uint32_t number, InetPrefix *prefix),
               (c, family, number, prefix))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrIntfSecIpAddrGet,
               (Client c, uint32_t family, uint32_t number, InetPrefix *prefix, uint32_t *index),
               (c, family, number, prefix, index))
ASKED_OF_ORRIN(rpcclt_tarnapiIntfIpMtuGet, (Client c, uint32_t family, uint32_t number, uint32_t *mtu),
               (c, family, number, mtu))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrICMPUnreachablesModeGet, (Client c, uint32_t number, uint32_t *mode), (c, number, mode))
ASKED_OF_ORRIN(rpcclt_tarnapiRtrICMPRedirectsModeGet, (Client c, uint32_t number, uint32_t *mode), (c, number, mode))
ASKED_OF_ORRIN(rpcclt_tarnapiBestRouteChangeNextGetMult, (Client c, uint32_t id, uint32_t count, Buffer records),
               (c, id, count, records))
ASKED_OF_ORRIN(rpcclt_tarnapiIntfBestRoutesNextGet,
               (Client c, uint32_t id, uint32_t number, uint32_t count, Buffer records),
               (c, id, number, count, records))

DONE_BY_KERNEL(procOsapiNetlinkIPv4Add,
               (const char *label, uint32_t addr, uint32_t mask, uint32_t broadcast, RouteNetlinkSock *sock),
               (label, addr, mask, broadcast, sock))
DONE_BY_KERNEL(osapiIfMacSet, (const char *name, const uint8_t *mac), (name, mac))
DONE_BY_KERNEL(osapiIfFlagChange, (const char *name, uint32_t flag, uint32_t set), (name, flag, set))
DONE_BY_KERNEL(osapiIfArpSet, (const char *name), (name))
DONE_BY_KERNEL(osapiIfAddrDel, (const char *name), (name))
DONE_BY_KERNEL(osapiIfIpv4MtuSet, (const char *name, uint32_t mtu), (name, mtu))
DONE_BY_KERNEL(osapiIfIpv4IcmpSendDestinationUnreachableSet, (const char *name, uint32_t mode), (name, mode))
DONE_BY_KERNEL(osapiIfIpv4IcmpRedirectSendSet, (const char *name, uint32_t mode), (name, mode))

// Of the C library, what the agent itself calls: memberships, device indexes, reading an event.
DONE_BY_KERNEL(setsockopt, (int fd, int level, int option, const void *value, socklen_t size) noexcept,
               (fd, level, option, value, size))
TIMED(KERNEL, unsigned, if_nametoindex, (const char *name) noexcept, (name))
TIMED(KERNEL, ssize_t, recvfrom, (int fd, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *fromSize),
      (fd, buffer, size, flags, from, fromSize))
TIMED(IDLE, int, select, (int count, fd_set *in, fd_set *out, fd_set *except, timeval *patience),
      (count, in, out, except, patience))
