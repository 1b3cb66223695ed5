/* The ARP resolution that the switch's main process sends to the agent of a VRF, on the local datagram socket
   "/tmp/mirel-%02d/arp-socket" (VRF id) that the agent binds: a neighbour for the kernel's ARP cache. Host byte order. One
   datagram is one message; there is no answer. */
#ifndef MIREL_PLATFORM_ARP_RESOLUTION_H
#define MIREL_PLATFORM_ARP_RESOLUTION_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ArpResolutionMsg {
    uint16_t msgType;               /* @0 ARP_RESOLUTION */
    uint16_t msgLen;                /* @2 ARP_RESOLUTION_LENGTH */
    uint32_t reserved4;             /* @4 not read */
    uint32_t ipAddr;                /* @8 */
    uint8_t  reserved12[12];        /* @12 not read */
    uint8_t  macAddr[6];            /* @24 */
    uint8_t  reserved30[2];         /* @30 not read */
    uint32_t ifIndex;               /* @32 a kernel index, or else the switch's interface number */
    uint32_t vrId;                  /* @36 VRF id */
} ArpResolutionMsg;                 /* sizeof 40 */

enum {
    ARP_RESOLUTION = 1,
    ARP_RESOLUTION_LENGTH = 36      /* the bytes after msgType and msgLen */
};

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <type_traits>

static_assert(sizeof(ArpResolutionMsg) == 40 && std::is_trivially_copyable_v<ArpResolutionMsg>);
static_assert(offsetof(ArpResolutionMsg, msgType) == 0);
static_assert(offsetof(ArpResolutionMsg, msgLen) == 2);
static_assert(offsetof(ArpResolutionMsg, reserved4) == 4);
static_assert(offsetof(ArpResolutionMsg, ipAddr) == 8);
static_assert(offsetof(ArpResolutionMsg, reserved12) == 12);
static_assert(offsetof(ArpResolutionMsg, macAddr) == 24);
static_assert(offsetof(ArpResolutionMsg, reserved30) == 30);
static_assert(offsetof(ArpResolutionMsg, ifIndex) == 32);
static_assert(offsetof(ArpResolutionMsg, vrId) == 36);
#endif

#endif
