// Kernel routes of the agent: main table, protocol 25, metric 0, at most one a prefix. Any thread; the sockets' lock is held
// over each call. This is the hot road of a route change: two system calls.

#include "route_netlink.h"

#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <ctime>
#include <net/if.h>
#include <sys/ioctl.h>
#include <utility>

std::mutex routeNetlinkLock;
AnswerWatch *routeAnswerWatch;

namespace {

enum InstallResult : int32_t { INSTALL_OK = 0, INSTALL_FAILED = 1, INSTALL_NOT_CARRIED = 8 };
enum RemoveResult : int32_t { REMOVE_OK = 0, REMOVE_FAILED = 1, REMOVE_NO_SUCH_ROUTE = 2 };

constexpr uint32_t ROUTE_FLAG_REJECT = 0x10;

struct Route {
  uint32_t dest;
  uint8_t prefixLength;
  uint32_t gateway; // 0 = none
  uint32_t ifIndex; // 0 = none
  bool reject;
};

// Finds the index of a device. An index once found is only asked whether it still has the name, which a device that was
// renamed, removed or made anew fails, and not even that twice in a tick of the kernel's clock: in a bulk of routes the
// question would be a tenth of the cost. What happens to a device meanwhile shows as ENODEV, or is a renaming that counts as
// after the route. (Asking by name with SIOCGIFINDEX makes the kernel run modprobe for each name that is not there.)
class DeviceIndexes {
public:
  NetlinkResult find(RouteNetlinkSock *sock, const char *name, uint32_t &ifIndex) {
    Known &known = known_[slotOf(name)];
    const int64_t now = tick();
    const bool isKnown = known.index != 0 && strcmp(known.name, name) == 0 &&
                         (known.asked == now || isNamed(sock->fd, known.index, name));
    NetlinkResult result = {.carried = true, .error = 0};
    if (!isKnown) {
      known.index = 0;
      result = netlinkDeviceIndex(sock->fd, sock->seq, name, known.index);
      strcpy(known.name, name);
    }
    known.asked = now;
    ifIndex = known.index;
    return result;
  }

  // Whether there was an index to forget.
  bool forget(const char *name) { return std::exchange(known_[slotOf(name)].index, 0) != 0; }

private:
  static constexpr size_t SLOTS = 256;

  struct Known {
    uint32_t index; // 0 = none
    char name[DEVICE_NAME_MAX + 1];
    int64_t asked; // tick of the last question
  };

  static int64_t tick() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
  }

  static size_t slotOf(const char *name) {
    uint32_t hash = 0;
    for (; *name != '\0'; ++name) {
      hash = hash * 31 + static_cast<unsigned char>(*name);
    }
    return hash % SLOTS;
  }

  static bool isNamed(int fd, uint32_t index, const char *name) {
    ifreq request{};
    request.ifr_ifindex = static_cast<int>(index);
    return ioctl(fd, SIOCGIFNAME, &request) == 0 && strcmp(request.ifr_name, name) == 0;
  }

  std::array<Known, SLOTS> known_{};
};

DeviceIndexes deviceIndexes; // under routeNetlinkLock

int32_t refuse(int error, int32_t result) {
  errno = error;
  return result;
}

bool tooLong(const char *device) {
  return strnlen(device, DEVICE_NAME_MAX + 1) > DEVICE_NAME_MAX;
}

rtmsg routeHeader(const Route &route) {
  rtmsg header{};
  header.rtm_family = AF_INET;
  header.rtm_dst_len = route.prefixLength;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = AGENT_ROUTE_PROTOCOL;
  return header;
}

void addAttributes(NetlinkRequest &request, const Route &route) {
  if (route.prefixLength > 0) {
    request.attr32(RTA_DST, htonl(route.dest));
  }
  if (route.gateway != 0) {
    request.attr32(RTA_GATEWAY, htonl(route.gateway));
  }
  if (route.ifIndex != 0) {
    request.attr32(RTA_OIF, route.ifIndex);
  }
}

enum class OnLink : bool { no, yes };

NetlinkResult create(RouteNetlinkSock *sock, const Route &route, uint16_t createFlags, OnLink onLink) {
  rtmsg header = routeHeader(route);
  header.rtm_type = route.reject ? RTN_UNREACHABLE : RTN_UNICAST;
  header.rtm_scope = route.reject || route.gateway != 0 ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
  header.rtm_flags = onLink == OnLink::yes ? RTNH_F_ONLINK : 0;
  NetlinkRequest request(RTM_NEWROUTE, createFlags, header);
  addAttributes(request, route);
  return netlinkAsk(sock->fd, sock->seq, request, {}, routeAnswerWatch);
}

// Type 0 and scope "nowhere" match every type and scope; the protocol keeps other programs' routes out.
NetlinkResult remove(RouteNetlinkSock *sock, const Route &route) {
  rtmsg header = routeHeader(route);
  header.rtm_type = RTN_UNSPEC;
  header.rtm_scope = RT_SCOPE_NOWHERE;
  NetlinkRequest request(RTM_DELROUTE, 0, header);
  addAttributes(request, route);
  return netlinkAsk(sock->fd, sock->seq, request, {}, routeAnswerWatch);
}

// Whatever way we gave the prefix.
Route ownRouteOf(const Route &route) {
  return {route.dest, route.prefixLength, 0, 0, false};
}

// Puts the route in the place of our own route of the prefix. Never with NLM_F_REPLACE, which takes the place of the first
// route of the prefix, whoever made it; creating without NLM_F_EXCL goes in front of another program's route.
NetlinkResult install(RouteNetlinkSock *sock, const Route &route, OnLink onLink) {
  const NetlinkResult first = create(sock, route, NLM_F_CREATE | NLM_F_EXCL, onLink);
  if (!first.carried || first.error != EEXIST) {
    return first;
  }
  const NetlinkResult removed = remove(sock, ownRouteOf(route));
  if (!removed.carried || (removed.error != 0 && removed.error != ESRCH)) {
    return removed;
  }
  return create(sock, route, NLM_F_CREATE, onLink);
}

NetlinkResult installThrough(RouteNetlinkSock *sock, Route route, const char *device) {
  const NetlinkResult found = deviceIndexes.find(sock, device, route.ifIndex);
  if (!found.done()) {
    return found;
  }
  if (route.gateway == 0) {
    return install(sock, route, OnLink::no);
  }
  // On-link spares the kernel the question whether the gateway is reachable through the device, which a gateway outside the
  // device's own subnets would fail. Some gateways cannot be on-link: those get the question.
  const NetlinkResult result = install(sock, route, OnLink::yes);
  return result.carried && result.error == EINVAL ? install(sock, route, OnLink::no) : result;
}

int32_t installResult(const NetlinkResult &result) {
  if (!result.carried) {
    return refuse(result.error, INSTALL_NOT_CARRIED);
  }
  return result.error == 0 ? INSTALL_OK : refuse(result.error, INSTALL_FAILED);
}

int32_t removeResult(const NetlinkResult &result) {
  if (result.done()) {
    return REMOVE_OK;
  }
  return refuse(result.error, result.carried && result.error == ESRCH ? REMOVE_NO_SUCH_ROUTE : REMOVE_FAILED);
}

} // namespace

int routePrefixLength(uint32_t mask) {
  const int length = std::countl_one(mask);
  return length + std::countr_zero(mask) >= 32 ? length : -1;
}

extern "C" int32_t procOsapiAddMRoute(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t, uint32_t flags,
                                      const char *device, RouteNetlinkSock *sock) {
  const int prefixLength = routePrefixLength(mask);
  const bool reject = (flags & ROUTE_FLAG_REJECT) != 0;
  const bool throughDevice = !reject && device[0] != '\0';
  if (prefixLength < 0 || tooLong(device) || (!reject && gateway == 0 && !throughDevice)) {
    return refuse(EINVAL, INSTALL_FAILED);
  }
  const Route route = {dest, static_cast<uint8_t>(prefixLength), reject ? 0 : gateway, 0, reject};

  const std::lock_guard lock(routeNetlinkLock);
  NetlinkResult result = throughDevice ? installThrough(sock, route, device) : install(sock, route, OnLink::no);
  if (throughDevice && result.carried && result.error == ENODEV && deviceIndexes.forget(device)) {
    result = installThrough(sock, route, device);
  }
  if (result.carried && result.error != 0) {
    // The kernel looks at the new way before it looks for an old one, which is wrong now whatever it says of the new.
    remove(sock, ownRouteOf(route));
  }
  return installResult(result);
}

extern "C" int32_t procOsapiDeleteMRoute(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t, const char *device,
                                         RouteNetlinkSock *sock) {
  const int prefixLength = routePrefixLength(mask);
  if (prefixLength < 0 || tooLong(device)) {
    return refuse(EINVAL, REMOVE_FAILED);
  }
  Route route = {dest, static_cast<uint8_t>(prefixLength), gateway, 0, false};

  const std::lock_guard lock(routeNetlinkLock);
  if (device[0] != '\0') {
    const NetlinkResult found = deviceIndexes.find(sock, device, route.ifIndex);
    if (found.carried && found.error == ENODEV) {
      return refuse(ESRCH, REMOVE_NO_SUCH_ROUTE); // the kernel drops the routes of a device together with it
    }
    if (!found.done()) {
      return removeResult(found);
    }
  }
  return removeResult(remove(sock, route));
}
