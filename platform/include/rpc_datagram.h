/* The datagrams of the RPC that an agent serves on the local socket RPC_SERVER_PATH, filled with "mirel" and the VRF id. A
   client binds RPC_CLIENT_PATH with a name of its own and gets its reply there. Host byte order.

   A request is this header, the argument area and a CRC-32 of all bytes before it in its last four (common/rpc_crc.h).
   The argument of slot i lies at byte 120 + argOffset[i], not aligned: an int32_t length, RPC_ARG_ABSENT for none, and that
   many bytes. Slot 0 is the result. The reply to an accepted request is the request without its CRC, status and results
   written in place, totalLength as it was; that to a refused one is 120 bytes, zero but for totalLength RPC_REFUSED. */
#ifndef MIREL_PLATFORM_RPC_DATAGRAM_H
#define MIREL_PLATFORM_RPC_DATAGRAM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RPC_SERVER_PATH "/tmp/dxs%3s.%02d"
#define RPC_CLIENT_PATH "/tmp/dxc%3s.%02d"

enum {
    RPC_MSG_MAX    = 131196,        /* bytes of a request */
    RPC_MAX_ARGS   = 21,            /* slots of a request, the result included */
    RPC_CRC_SIZE   = 4,
    RPC_ARG_ABSENT = -2,
    RPC_REFUSED    = 124            /* totalLength of a reply to what is no request */
};

enum {                              /* status of a reply */
    RPC_STATUS_DONE         = 0,
    RPC_STATUS_BAD_ARGS     = -3,   /* too many arguments, or one outside the request */
    RPC_STATUS_NO_PROCEDURE = -7    /* program or procedure not there */
};

typedef struct RpcMsgHeader {
    uint32_t totalLength;           /* @0   bytes of the request, CRC included */
    uint32_t program;               /* @4   slot 0 to 6; the agent's is 0 */
    uint32_t procedure;             /* @8 */
    uint8_t  reserved12[8];         /* @12  kept by the server */
    int32_t  status;                /* @20  of the reply; 0 in a request */
    uint8_t  reserved24[8];         /* @24  kept by the server */
    uint32_t argCount;              /* @32  slots, slot 0 included */
    uint32_t argOffset[RPC_MAX_ARGS]; /* @36 */
} RpcMsgHeader;                     /* sizeof 120 */

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <type_traits>

static_assert(sizeof(RpcMsgHeader) == 120 && std::is_trivially_copyable_v<RpcMsgHeader>);
static_assert(offsetof(RpcMsgHeader, totalLength) == 0);
static_assert(offsetof(RpcMsgHeader, program) == 4);
static_assert(offsetof(RpcMsgHeader, procedure) == 8);
static_assert(offsetof(RpcMsgHeader, reserved12) == 12);
static_assert(offsetof(RpcMsgHeader, status) == 20);
static_assert(offsetof(RpcMsgHeader, reserved24) == 24);
static_assert(offsetof(RpcMsgHeader, argCount) == 32);
static_assert(offsetof(RpcMsgHeader, argOffset) == 36);
#endif

#endif
