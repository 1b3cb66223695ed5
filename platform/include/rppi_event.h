/* The event message that the routing service sends to its clients' local datagram sockets, "/tmp/rppi_rec.%04u" (router
   events) and "/tmp/rppi_brc.%04u" (best routes), filled with the client id of the registration. Host byte order. One
   datagram is one message; a short one is legal, and its missing fields read as 0. */
#ifndef MIREL_PLATFORM_RPPI_EVENT_H
#define MIREL_PLATFORM_RPPI_EVENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct RppiEventMsg {
    uint16_t msgType;               /* @0 TARNR_* */
    uint16_t msgLen;                /* @2 bytes in the datagram */
    uint32_t eventSeq;              /* @4 returned in the acknowledgement (types 101 to 299) */
    uint32_t intIfNum;              /* @8 */
    uint32_t reserved12;            /* @12 not read */
    uint32_t cfgEvent;              /* @16 type 114: 1 disable, 2 unreachables, 3 redirects, 4 rate limit, 5 echo reply, 6 VRRP */
    uint32_t reserved20;            /* @20 not read */
    uint32_t addrOp;                /* @24 type 110: 1 add, other = remove */
    union {
        uint32_t ipAddr;            /* @28 type 110 */
        uint32_t vrrpLabelNum;      /* @28 type 114, cfgEvent 6 */
    };
    union {
        uint32_t ipMask;            /* @32 type 110 */
        uint32_t vrrpOp;            /* @32 type 114, cfgEvent 6: 1 add, other = remove */
    };
    union {
        uint32_t addrLabelNum;      /* @36 type 110 */
        uint32_t vrrpAddr[32];      /* @36 type 114, cfgEvent 6; 0 = empty */
    };
} RppiEventMsg;                     /* sizeof 164 */

enum {
    TARNR_KEEPALIVE = 1,                TARNR_BEST_ROUTE_CHANGE = 10,       TARNR_RTR_ENABLE = 101,
    TARNR_RTR_DISABLE = 102,            TARNR_RTR_STARTUP_DONE = 103,       TARNR_RTR_INTF_CREATE = 104,
    TARNR_RTR_INTF_DELETE = 105,        TARNR_RTR_INTF_ENABLE = 106,        TARNR_RTR_INTF_ENABLE_PENDING = 107,
    TARNR_RTR_INTF_DISABLE = 108,       TARNR_RTR_INTF_DISABLE_PENDING = 109, TARNR_RTR_INTF_ADDR_CHANGE = 110,
    TARNR_RTR_INTF_MTU = 111,           TARNR_RTR_INTF_BW_CHANGE = 112,     TARNR_RTR_INTF_HOST_MODE = 113,
    TARNR_RTR_INTF_CFG_CHANGE = 114,    TARNR_RTR6_ENABLE = 201,            TARNR_RTR6_DISABLE = 202,
    TARNR_RTR6_STARTUP_DONE = 203,      TARNR_RTR6_INTF_CREATE = 204,       TARNR_RTR6_INTF_DELETE = 205,
    TARNR_RTR6_INTF_ENABLE = 206,       TARNR_RTR6_INTF_DISABLE = 207,      TARNR_RTR6_INTF_ADDR_CHANGE = 208,
    TARNR_RTR6_INTF_MTU = 209,          TARNR_RTR6_INTF_BW_CHANGE = 210,    TARNR_RTR6_INTF_HOST_MODE = 211,
    TARNR_POLICY_CHANGE = 300
};

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <type_traits>

static_assert(sizeof(RppiEventMsg) == 164 && std::is_trivially_copyable_v<RppiEventMsg>);
static_assert(offsetof(RppiEventMsg, msgType) == 0);
static_assert(offsetof(RppiEventMsg, msgLen) == 2);
static_assert(offsetof(RppiEventMsg, eventSeq) == 4);
static_assert(offsetof(RppiEventMsg, intIfNum) == 8);
static_assert(offsetof(RppiEventMsg, reserved12) == 12);
static_assert(offsetof(RppiEventMsg, cfgEvent) == 16);
static_assert(offsetof(RppiEventMsg, reserved20) == 20);
static_assert(offsetof(RppiEventMsg, addrOp) == 24);
static_assert(offsetof(RppiEventMsg, ipAddr) == 28);
static_assert(offsetof(RppiEventMsg, vrrpLabelNum) == 28);
static_assert(offsetof(RppiEventMsg, ipMask) == 32);
static_assert(offsetof(RppiEventMsg, vrrpOp) == 32);
static_assert(offsetof(RppiEventMsg, addrLabelNum) == 36);
static_assert(offsetof(RppiEventMsg, vrrpAddr) == 36);
#endif

#endif
