// The routes that agents report of their VRFs' kernels. They stay until they are withdrawn; a prefix that the switch itself has a
// route for shows the switch's, and the kernel's again when that goes.
#pragma once

#include "switch.h"

#include <string>

namespace orrin {

// What an agent reports; a tarnapi.h result. A route of the same prefix and metric takes the place of the one before, since the
// kernel announces a replacement as nothing but an addition.
int32_t addKernelRoute(Switch &sw, Vrf &vrf, const KernelRoute &route);
int32_t deleteKernelRoute(Switch &sw, Vrf &vrf, const KernelRoute &route);

// From the state folder.
void restoreKernelRoute(Switch &sw, Vrf &vrf, KernelRoute route);
void forgetKernelRoute(Switch &sw, Vrf &vrf, const KernelRoute::Key &key);

// Those through an interface whose device goes down, of which the kernel does not say that they are gone: it drops IPv4 routes in
// silence. Those through one that is about to go.
void dropSilentKernelRoutes(Switch &sw, const Interface &interface);
void dropKernelRoutes(Switch &sw, const Interface &interface);

// The one of a prefix that counts, null when there is none.
const KernelRoute *bestKernelRoute(const Vrf &vrf, const Prefix &prefix);
RouteAttrs attrsOf(const KernelRoute &route); // of IPv4

// "reported route ..." lines.
void appendKernelRoutes(Switch &sw, const Vrf &vrf, std::string &out);

} // namespace orrin
