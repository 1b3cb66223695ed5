// The routing service's event types and the sockets on which it pushes them. Only the main thread creates, reads and
// closes these sockets; the sockets' owners are the two event clients.

#include "mirel_router_event.h"

#include "mirel_router.h"
#include "mirel_trace.h"
#include "unique_fd.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/mirel_router";

// Datagrams queue in the kernel while the main loop is busy elsewhere.
constexpr int RPPI_RECEIVE_BUFFER = 0x80000;

using Stats = MirelIntfEventStats;

#define EVENT(type) type, #type

using enum EventRole;

constexpr RouterEventType EVENT_TYPES[] = {
    {EVENT(TARNR_KEEPALIVE), "KEEPALIVE", KEEPALIVE, nullptr, nullptr, true},
    {EVENT(TARNR_BEST_ROUTE_CHANGE), "BEST ROUTE CHANGE", UNKNOWN, nullptr, nullptr, true},
    {EVENT(TARNR_RTR_ENABLE), "IPv4 ROUTING ENABLE", NOTED, nullptr, nullptr, true},
    {EVENT(TARNR_RTR_DISABLE), "IPv4 ROUTING DISABLE", NOTED, nullptr, nullptr, true},
    {EVENT(TARNR_RTR_STARTUP_DONE), "STARTUP DONE", HANDLED, mirelRtrStartupDoneHandler, nullptr, true},
    {EVENT(TARNR_RTR_INTF_CREATE), "INTERFACE CREATE", NOTED, nullptr, nullptr, true},
    {EVENT(TARNR_RTR_INTF_DELETE), "INTERFACE DELETE", NOTED, nullptr, nullptr, true},
    {EVENT(TARNR_RTR_INTF_ENABLE), "INTERFACE IPv4 ENABLE", HANDLED, mirelRtrEnableEventHandler, nullptr, true},
    {EVENT(TARNR_RTR_INTF_ENABLE_PENDING), "INTERFACE IPv4 ENABLE PENDING", HANDLED, mirelRtrEnablePendingHandler,
     &Stats::enablePending, true},
    {EVENT(TARNR_RTR_INTF_DISABLE), "INTERFACE IPv4 DISABLE", HANDLED, mirelRtrDisableHandler, &Stats::disable, true},
    {EVENT(TARNR_RTR_INTF_DISABLE_PENDING), "INTERFACE IPv4 DISABLE PENDING", UNKNOWN, nullptr, nullptr, true},
    {EVENT(TARNR_RTR_INTF_ADDR_CHANGE), "IPv4 ADDRESS CHANGE", HANDLED, mirelRtrAddrHandler, &Stats::addrChange, true},
    {EVENT(TARNR_RTR_INTF_MTU), "IPv4 MTU CHANGE", HANDLED, mirelRtrMtuHandler, &Stats::mtu, true},
    {EVENT(TARNR_RTR_INTF_BW_CHANGE), "BANDWIDTH CHANGE", HANDLED, mirelRtrBwHandler, &Stats::bwChange, true},
    {EVENT(TARNR_RTR_INTF_HOST_MODE), "HOST INTERFACE FOR IPv4", HANDLED, mirelRtrHostModeHandler, &Stats::hostMode,
     true},
    {EVENT(TARNR_RTR_INTF_CFG_CHANGE), "INTERFACE CONFIG CHANGE", HANDLED, mirelRtrCfgHandler, &Stats::cfgChange, true},
    {EVENT(TARNR_RTR6_ENABLE), "IPv6 ROUTING ENABLE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_DISABLE), "IPv6 ROUTING DISABLE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_STARTUP_DONE), "IPv6 STARTUP DONE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_CREATE), "IPv6 INTERFACE CREATE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_DELETE), "IPv6 INTERFACE DELETE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_ENABLE), "INTERFACE IPv6 ENABLE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_DISABLE), "INTERFACE IPv6 DISABLE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_ADDR_CHANGE), "IPv6 ADDRESS CHANGE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_MTU), "IPv6 MTU CHANGE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_BW_CHANGE), "IPv6 BANDWIDTH CHANGE", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_RTR6_INTF_HOST_MODE), "HOST INTERFACE FOR IPv6", NOTED, nullptr, nullptr, false},
    {EVENT(TARNR_POLICY_CHANGE), "POLICY CHANGE", UNKNOWN, nullptr, nullptr, true},
};

#undef EVENT

static_assert(std::ranges::is_sorted(EVENT_TYPES, {}, &RouterEventType::type));

} // namespace

std::span<const RouterEventType> mirelRouterEventTypes() {
  return EVENT_TYPES;
}

const RouterEventType *mirelRouterEventTypeFind(uint32_t msgType) {
  const RouterEventType *row = std::ranges::lower_bound(EVENT_TYPES, msgType, {}, &RouterEventType::type);
  return row != std::end(EVENT_TYPES) && row->type == msgType ? row : nullptr;
}

const char *mirelRouterEventNameGet(uint32_t msgType) {
  const RouterEventType *row = mirelRouterEventTypeFind(msgType);
  return row != nullptr ? row->name : "UNKNOWN";
}

int mirelCreateRppiSock(const char *pathFormat, uint32_t clientId, Relaxed<int> *sockFd) {
  if (sockFd == nullptr) {
    MIREL_LOG(SEVERITY_ERROR, "NULL fd for RPPI client socket");
    return -1;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path - 1, pathFormat, clientId);

  UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to create RPPI client socket");
    return -1;
  }
  unlink(address.sun_path); // left by an earlier agent, it would block the bind
  const size_t length = offsetof(sockaddr_un, sun_path) + strlen(address.sun_path);
  if (bind(sock.get(), reinterpret_cast<const sockaddr *>(&address), static_cast<socklen_t>(length)) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to bind RPPI client socket");
    return -1;
  }
  if (setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &RPPI_RECEIVE_BUFFER, sizeof RPPI_RECEIVE_BUFFER) != 0) {
    MIREL_LOG(SEVERITY_ERROR, "Failed to set the receive buffer-size for RPPI client socket");
    return -1;
  }
  *sockFd = sock.release();
  return 0;
}
