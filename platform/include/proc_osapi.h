/* libqvproc.so: IPv4 addresses and routes of the kernel, over one route netlink socket that the caller owns. Addresses and
   masks are uint32_t in host byte order. "R1" is 0, or non-zero (1) with errno saying why. */
#ifndef MIREL_PLATFORM_PROC_OSAPI_H
#define MIREL_PLATFORM_PROC_OSAPI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct RouteNetlinkSock {   /* the agent's routeNetlinkSock; layout */
    int32_t     fd;                 /* @0 -1 until procOsapiRouteNetlinkSocketInit fills it */
    uint32_t    seq;                /* @4 the library's; 0 at start */
    const char *name;               /* @8 "netlink-request_dx-to-kernel", set before the init call */
} RouteNetlinkSock;                 /* sizeof 16 */

/* Opens the route netlink socket of the record.  R: 0 fd valid; other = failure (the caller exits). */
int32_t procOsapiRouteNetlinkSocketInit(RouteNetlinkSock *sock);
/* Adds an IPv4 address. label: the device name, or "device:number", "device:number_number" (at most 16 characters); the
   device is the text before the colon. broadcast 0 = none. An address that the device already carries with this prefix is
   brought to this label and broadcast and counts as added, so that a repeated enable succeeds.  R1. */
int32_t procOsapiNetlinkIPv4Add(const char *label, uint32_t addr, uint32_t mask, uint32_t broadcast, RouteNetlinkSock *sock);
/* Removes an IPv4 address; label as above.  R1. */
int32_t procOsapiNetlinkIPv4Del(const char *label, uint32_t addr, uint32_t mask, RouteNetlinkSock *sock);
/* Installs an IPv4 route in the namespace's main table with route protocol 25, so that the agent's route listener does not
   report it back; takes the place of the agent's own route of the same prefix, and leaves another program's alone. gateway 0 = none; intIfNum 0 = none; device at most 16 characters, empty = none; flags: the
   whole word
   0x10 reject, 0x1000 VRF device, 0x2000 IPv4 over IPv6, 0x8000, 0x80000 MPLS, 0x400000 kernel route.
   R: 0; 8, which the caller counts as an RPC error, when the request could not be carried to the kernel; 1 on
   any other failure. */
int32_t procOsapiAddMRoute(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum, uint32_t flags, const char *device,
                           RouteNetlinkSock *sock);
/* Removes an IPv4 route; with gateway 0, intIfNum 0 and device "" by destination and mask alone. No flags. Touches routes of
   protocol 25 only: connected routes of the kernel and routes of other programs stay.
   R: 0 removed; 1 failure; 2 the kernel holds no such route: only 1 is taken as a failure, and a route that the
   kernel dropped by itself, with its device, was counted as active and is counted as deleted now. */
int32_t procOsapiDeleteMRoute(uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum, const char *device,
                              RouteNetlinkSock *sock);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <type_traits>

static_assert(sizeof(RouteNetlinkSock) == 16 && std::is_trivially_copyable_v<RouteNetlinkSock>);
static_assert(offsetof(RouteNetlinkSock, fd) == 0);
static_assert(offsetof(RouteNetlinkSock, seq) == 4);
static_assert(offsetof(RouteNetlinkSock, name) == 8);
#endif

#endif
