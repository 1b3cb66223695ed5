// Socket filters of the agent's listening netlink sockets. What would be read only to be ignored is dropped by the kernel
// before it takes room in the socket's buffer, which a burst of the agent's own making would fill. Without a filter, which
// the kernel refuses only for want of memory, the reader ignores the same messages.
#pragma once

#include <cstdint>

inline constexpr uint8_t OWN_ROUTE_PROTOCOL = 25; // of the routes that the agent installs

// Drops whole messages of a route of the main table and the agent's own protocol, and nothing else.
void netlinkOwnRoutesDrop(int sock);

// Drops whole neighbour messages of another family than IPv4, and nothing else.
void netlinkOtherNeighboursDrop(int sock);
