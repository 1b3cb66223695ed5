// What the calls of proc_osapi.h share: the lock of the route netlink sockets, and the agent's mark on its routes.
#pragma once

#include "netlink.h"
#include "proc_osapi.h"

#include <cstdint>
#include <mutex>

constexpr uint8_t AGENT_ROUTE_PROTOCOL = 25;

constexpr size_t DEVICE_NAME_MAX = 15; // of the kernel, without NUL

// Held while a RouteNetlinkSock is in use: a request and its answer belong together, whichever thread asks.
extern std::mutex routeNetlinkLock;

// Of the route netlink socket that was opened last, for the thread that opened it. Never freed: threads may be in here when the
// process ends. Null before the first.
extern AnswerWatch *routeAnswerWatch;

// Prefix length of a mask in host byte order, -1 if its ones are not contiguous.
int routePrefixLength(uint32_t mask);

// Removes the protocol-25 routes of the main table that an earlier agent left behind. The caller holds the lock.
void routeLeftoversRemove(RouteNetlinkSock *sock);
