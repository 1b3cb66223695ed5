// Changes of the route tables; each is noted in the queues of the VRF's best-route clients, who are notified.
#pragma once

#include "switch.h"

#include <string>
#include <string_view>

namespace orrin {

enum class RouteEdit { ADD, MODIFY, REMOVE };

// Edits `count` consecutive prefixes from `first` on; attrs are not looked at for REMOVE. All or nothing: empty when done,
// else why not.
std::string editRoutes(Switch &sw, RouteEdit edit, uint32_t vrf, const Prefix &first, uint32_t count,
                       const RouteAttrs &attrs);

// A kernel route of the prefix has come, changed or gone.
void refreshRoute(Switch &sw, Vrf &vrf, const Prefix &prefix);

// The switch's own with a next hop on the interface.
size_t routesThrough(const Switch &sw, uint32_t interface);

// Appends routes through the interface in wire form, strictly after `key` (0/0: from the start). True when there are more
// than `limit`.
bool encodeRoutesThrough(Switch &sw, const Vrf &vrf, uint32_t interface, const Prefix &key, uint32_t limit,
                         std::string &out);

// Hands the routes through the interface out once more, to all best-route clients of the VRF.
void requeueRoutesThrough(Switch &sw, const Vrf &vrf, uint32_t interface);

// Withdraws everything in a VRF that is about to go.
void removeAllRoutes(Switch &sw, Vrf &vrf);

// The switch's own as "routes add ..." or "route add ..." lines; consecutive prefixes of one kind share a line if `runs`.
void appendRoutes(Switch &sw, const Vrf &vrf, bool runs, std::string &out);

} // namespace orrin
