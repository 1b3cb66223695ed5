/* libtarnapi.so: the platform API client, remote calls to the switch's routing, interface, ARP, RTO and IP SLA services.
   "R:" gives the results; "other" is any value not named before it and is a failure. A failing call leaves its outputs
   as they were. IPv4 addresses and masks are uint32_t in host byte order; a MAC is 6 bytes, first byte first on the
   wire; family is always 1, IPv4. Every function may be called from any thread. A tarn_buffdesc is never changed by the
   callee; as an output at most size bytes are written at pstart, and a text that fills them comes without NUL. */
#ifndef MIREL_PLATFORM_TARNAPI_H
#define MIREL_PLATFORM_TARNAPI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct tarnapiClient tarnapiClient;   /* opaque service client; the agent keeps the pointer as tarnapiClientHandle */

typedef struct tarn_buffdesc {
    uint32_t size;              /* @0 bytes at pstart; a text input counts its NUL unless said otherwise */
    char    *pstart;            /* @8 */
} tarn_buffdesc;                /* sizeof 16 */

typedef struct InetAddr {
    uint32_t family;            /* @0 1 = IPv4, 2 = IPv6, other = unknown */
    union {
        uint32_t ipv4;          /* @4 host byte order; the remaining 12 bytes are 0 */
        uint8_t  ipv6[16];      /* @4 network byte order */
    };
} InetAddr;                     /* sizeof 20 */

typedef struct InetPrefix {
    InetAddr addr;              /* @0 */
    uint32_t prefixLen;         /* @20 */
} InetPrefix;                   /* sizeof 24 */

typedef struct NextHopRecord {
    InetAddr addr;              /* @0 the next hop */
    uint32_t intIfNum;          /* @20 the switch's interface number */
    uint8_t  reserved24[12];    /* @24 neither read nor set by the agent */
} NextHopRecord;                /* sizeof 36 */

typedef struct RtoRouteRecord { /* a kernel route reported to RTO; zero-filled first */
    InetAddr prefix;            /* @0 */
    uint8_t  prefixLen;         /* @20 */
    uint8_t  routeType;         /* @21 1 local, 2 kernel, other = a route to install; reports carry 2 */
    uint8_t  reserved22[2];     /* @22 */
    uint32_t routeProto;        /* @24 reports: 7 for IPv4, 0 for IPv6 */
    uint8_t  rejectRoute;       /* @28 non-zero: unreachable or prohibit */
    uint8_t  discardRoute;      /* @29 non-zero: blackhole */
    uint8_t  reportFlag;        /* @30 reports: 1 */
    uint8_t  reserved31;        /* @31 */
    uint32_t metric;            /* @32 */
    uint32_t numNextHops;       /* @36 entries in the next-hop descriptor that goes with the record */
    uint8_t  reserved40[8];     /* @40 zero in a report */
} RtoRouteRecord;               /* sizeof 48 */

typedef struct BestRouteRecord {
    InetAddr prefix;            /* @0 family 1 */
    uint8_t  prefixLen;         /* @20 */
    uint8_t  routeType;         /* @21 as above */
    uint8_t  reserved22[2];     /* @22 */
    uint32_t routeProto;        /* @24 */
    uint8_t  rejectRoute;       /* @28 */
    uint8_t  discardRoute;      /* @29 */
    uint8_t  reportFlag;        /* @30 */
    uint8_t  reserved31;        /* @31 */
    uint32_t metric;            /* @32 */
    uint32_t numNextHops;       /* @36 valid entries of nextHops, at most 48 */
    uint8_t  viaVrfDevice;      /* @40 non-zero: leaves through the VRF's own device, no gateway */
    uint8_t  rfc5549;           /* @41 non-zero: IPv4 prefix over an IPv6 next hop */
    uint8_t  flag8000;          /* @42 non-zero: pass route flag 0x8000 */
    uint8_t  mplsRoute;         /* @43 */
    uint8_t  installKernelRoute;/* @44 non-zero: install although routeType is 2 */
    uint8_t  reserved45[3];     /* @45 */
    uint8_t  changeType;        /* @48 0 add, 1 delete, 2 modify */
    uint8_t  reserved49[3];     /* @49 */
    NextHopRecord nextHops[48]; /* @52 */
    uint8_t  valid;             /* @1780 non-zero on every record that a fetch filled */
    uint8_t  reserved1781[3];   /* @1781 */
} BestRouteRecord;              /* sizeof 1784; a fetch buffer holds 50 of them, 89200 bytes */

enum {  /* result codes of the platform API; the names are, the numbers are fixed */
    TARN_OK          = 0,
    TARN_LOCAL_ADDR  = -21,     /* address of a local interface */
    TARN_INVALID     = -22,     /* invalid parameter */
    TARN_FULL        = -23,     /* client list (or table) full */
    TARN_EXISTS      = -24,     /* already exists / client name already registered */
    TARN_REFUSED     = -25,     /* refused */
    TARN_FAILURE     = -26,     /* general failure */
    TARN_NOT_YET     = -28,     /* not possible yet; for a kernel ARP delete: not a kernel entry */
    TARN_NOT_FOUND   = -29,
    TARN_NO_MORE     = -30      /* end of a walk, or this batch is the last */
};

enum { TARN_FAMILY_IPV4 = 1, TARN_FAMILY_IPV6 = 2 };

/* Registers the process as a platform API client. name "mirel"; arg1 is 1, arg2 is 2001, passed unchanged; *client is
   filled and stays valid for the life of the process. The name is a plain text, not a descriptor.
   R: 0 registered; other = refused, printed with %d (the caller exits). */
int32_t tarnapiServiceClientRegister(const char *name, uint32_t arg1, uint32_t arg2, tarnapiClient **client);
/* Is the system ready for route installs? *ready: 0 no, non-zero yes.
   R: 0 *ready valid; other = unknown (the caller goes on as if ready). */
int32_t tarnapiSystemReadyStateGet(tarnapiClient *client, uint32_t *ready);
/* Has a remote call failed since the last reset?  R: 1 yes; 0 (or anything but 1) no. */
int32_t rpcclt_rpc_failure_occured(void);
/* Clears that indication.  R: 0, not looked at. */
int32_t rpcclt_rpc_failure_reset(void);
/* Does the platform answer?  R: 0 yes; non-zero not yet (asked again every second, without limit). */
int32_t rpcclt_tarnapiConnectivityCheck(tarnapiClient *client);
/* Name of a VRF into name (size 65).  R: 0; other = failure (the caller goes on with the empty name). */
int32_t rpcclt_tarnapiVrfNameGet(tarnapiClient *client, uint32_t vrfId, const tarn_buffdesc *name);
/* Name of the VRF's own interface into name (size 17).  R: 0; other = failure. */
int32_t rpcclt_tarnapiVrfIntfNameGet(tarnapiClient *client, uint32_t vrfId, const tarn_buffdesc *name);
/* Has routing started in the VRF? *status non-zero = yes. family comes before vrfId.
   R: 0 *status valid; other = failure (fatal at start-up). */
int32_t rpcclt_tarnapiRoutingStartupStatusVr(tarnapiClient *client, uint32_t family, uint32_t vrfId, uint32_t *status);
/* ICMP rate limit of the VRF. vrfName: size is always 65, pstart a NUL-terminated name.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrICMPRatelimitGet(tarnapiClient *client, const tarn_buffdesc *vrfName, uint32_t *burstSize, uint32_t *interval);
/* ICMP echo-reply mode of the VRF, 1 = replies enabled. vrfName as above.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrICMPEchoReplyModeGet(tarnapiClient *client, const tarn_buffdesc *vrfName, uint32_t *mode);

/* Registers a router event client. Order: 1, pid, vrfId, name, id. clientName: "mirel:<vrfId>", size = length + 1.
   *clientId becomes non-zero; events then go to "/tmp/rppi_rec.%04u".
   R: 0; -28 not ready (called again every second); -24 name already registered; -23 list full; -22 invalid parameter;
   -26 general failure; other = failure. */
int32_t rpcclt_tarnapiRouterEventRegister(tarnapiClient *client, uint32_t family, uint32_t pid, uint32_t vrfId,
                                          const tarn_buffdesc *clientName, uint32_t *clientId);
/* Acknowledges one event by its eventSeq.  R: not looked at. */
int32_t rpcclt_tarnapiRouterEventAcknowledge(tarnapiClient *client, uint32_t vrfId, uint32_t clientId, uint32_t eventSeq);
/* Drops the registration.  R: not looked at. */
int32_t rpcclt_tarnapiRouterEventDeregister(tarnapiClient *client, uint32_t vrfId, uint32_t clientId);
/* Next router interface of the VRF after prevIntIfNum in ascending order; 0 = from the start. nextIntIfNum may
   point at the variable that prevIntIfNum was read from.  R: 0 *nextIntIfNum valid; non-zero = none (-30). */
int32_t rpcclt_tarnapiRtrIntfNextGetVrf(tarnapiClient *client, uint32_t vrfId, uint32_t prevIntIfNum, uint32_t *nextIntIfNum);
/* Interface type: 4 loopback, 5 tunnel, other = ordinary.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfTypeGet(tarnapiClient *client, uint32_t intIfNum, uint32_t *type);
/* The switch's name of the interface (size 60).  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfNameGet(tarnapiClient *client, uint32_t intIfNum, const tarn_buffdesc *name);
/* Kernel device name of the interface in the VRF (size 17 or 60); called for VRF 0 too.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfIpStackStkNameGet(tarnapiClient *client, uint32_t vrfId, uint32_t intIfNum, const tarn_buffdesc *name);
/* Kernel device name of the interface in the default VRF (size 60). No vrfId.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfIpStackIfNameGet(tarnapiClient *client, uint32_t intIfNum, const tarn_buffdesc *name);
/* Kernel index of the interface in the default VRF. No vrfId.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfIpStackIfIndexGet(tarnapiClient *client, uint32_t intIfNum, uint32_t *ifIndex);
/* Router MAC of the interface (size 6, 6 bytes written).  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfL3MacAddressGet(tarnapiClient *client, uint32_t intIfNum, const tarn_buffdesc *mac);
/* Primary address with prefix length.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrIntfIpAddrGet(tarnapiClient *client, uint32_t family, uint32_t intIfNum, InetPrefix *prefix);
/* Next secondary address. *prefix in: all zeros = from the start, else the answer of the call before; out: the next one.
   *index out: the number after the colon of its label.  R: 0; -30 no more; other = failure. */
int32_t rpcclt_tarnapiRtrIntfSecIpAddrGet(tarnapiClient *client, uint32_t family, uint32_t intIfNum, InetPrefix *prefix, uint32_t *index);
/* IPv4 MTU.  R: 0; other = failure. */
int32_t rpcclt_tarnapiIntfIpMtuGet(tarnapiClient *client, uint32_t family, uint32_t intIfNum, uint32_t *mtu);
/* Bandwidth.  R: 0; other = failure. */
int32_t rpcclt_tarnapiIntfBandwidthGet(tarnapiClient *client, uint32_t family, uint32_t intIfNum, uint32_t *bandwidth);
/* ICMP unreachables mode of the interface.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrICMPUnreachablesModeGet(tarnapiClient *client, uint32_t intIfNum, uint32_t *mode);
/* ICMP redirects mode of the interface.  R: 0; other = failure. */
int32_t rpcclt_tarnapiRtrICMPRedirectsModeGet(tarnapiClient *client, uint32_t intIfNum, uint32_t *mode);

/* Gateway of the switch's service port; *addr cleared by the caller first.  R: 0; other = unknown; not looked at. */
int32_t rpcclt_tarnapiServicePortGatewayIPv4AddrGet(tarnapiClient *client, InetAddr *addr);
/* Gateway of the switch's network port; likewise. */
int32_t rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet(tarnapiClient *client, InetAddr *addr);
/* Adds a kernel neighbour to the switch's ARP cache. mac: size 6. state: the kernel's neighbour state.
   R: 0 added; -24 exists; -21 address of a local interface; other = failure. */
int32_t rpcclt_tarnapiKernelArpAdd(tarnapiClient *client, uint32_t vrfId, const InetAddr *addr, const tarn_buffdesc *mac,
                                   uint32_t ifIndex, uint32_t state);
/* Removes a kernel neighbour.  R: 0 removed; -29 no such entry; -28 not a kernel entry; other = failure. */
int32_t rpcclt_tarnapiKernelArpDelete(tarnapiClient *client, uint32_t vrfId, const InetAddr *addr, uint32_t ifIndex);
/* Asks for a neighbour's MAC. mac: size 6, to fill. ipv4: the same address as a host-order number. flags: 0.
   R: 0 mac filled; -29 no interface for the address; other = not resolved. */
int32_t rpcclt_tarnapiArpResolve(tarnapiClient *client, uint32_t vrfId, const InetAddr *addr, const tarn_buffdesc *mac,
                                 uint32_t ipv4, uint32_t ifIndex, uint32_t flags);

/* Registers a best-route client. Order: vrfId, 1, pid, name, id - not that of the router event call. clientName as there.
   *clientId becomes non-zero; notifications then go to "/tmp/rppi_brc.%04u".
   R: 0; -28 not ready (called again every second); -24 name already registered; -23 list full; other = failure. */
int32_t rpcclt_tarnapiBestRouteEventRegisterVr(tarnapiClient *client, uint32_t vrfId, uint32_t family, uint32_t pid,
                                               const tarn_buffdesc *clientName, uint32_t *clientId);
/* Drops the registration. No vrfId.  R: not looked at. */
int32_t rpcclt_tarnapiBestRouteEventDeregister(tarnapiClient *client, uint32_t clientId);
/* Fetches the next best-route changes of the client. count 50; records: size 89200, cleared by the caller; filled from
   record 0 on, each with valid non-zero. A change is handed out once.
   R: 0 batch delivered, more may follow; -30 this batch, possibly empty, is the last; other = failure, nothing delivered. */
int32_t rpcclt_tarnapiBestRouteChangeNextGetMult(tarnapiClient *client, uint32_t clientId, uint32_t count, const tarn_buffdesc *records);
/* Fetches best routes that leave through intIfNum. count 50; records: size 89200. In: record 0 holds the key in prefix.ipv4
   and prefixLen, all else 0, the family included; key 0/0 = from the start, else strictly after the key. Out: from record 0
   on, the key overwritten, each with valid non-zero and changeType 0, ascending by (prefix, prefixLen).
   R: 0 all 50 filled, more may follow, record 49 is the next key; -30 the last batch, 0 to 50 records (with no record the
   key keeps valid 0); other = failure. */
int32_t rpcclt_tarnapiIntfBestRoutesNextGet(tarnapiClient *client, uint32_t clientId, uint32_t intIfNum, uint32_t count,
                                            const tarn_buffdesc *records);
/* Registers a routing protocol. name "kernel" (size 7), code "K" (size 2), *protoId 7 in, the protocol's id out.
   R: 0; other = failure. */
int32_t rpcclt_tarnapiRoutingProtocolRegister(tarnapiClient *client, uint32_t vrfId, uint32_t family, const tarn_buffdesc *name,
                                              const tarn_buffdesc *code, uint32_t *protoId);
/* Registers a route type under a protocol. No vrfId. name "Kernel" (size 7), code "" (size 1), *routeType out.
   R: 0; other = failure. */
int32_t rpcclt_tarnapiRouteTypeRegister(tarnapiClient *client, uint32_t family, uint32_t protoId, const tarn_buffdesc *name,
                                        const tarn_buffdesc *code, uint32_t *routeType);
/* The switch's number of a kernel interface index.  R: 0 *intIfNum valid; other = not known (the caller uses 0). */
int32_t rpcclt_tarnapiStackIfIndexIntIfNumGet(tarnapiClient *client, uint32_t ifIndex, uint32_t *intIfNum);
/* Reports a kernel route. nextHops: NextHopRecord entries, size = number x 36 (0 for a reject or discard route, at most 16).
   R: 0; -26 general failure; -25 refused; -24 exists; -23 full; any other value counts as -25. */
int32_t rpcclt_tarnapiKernelRouteAddVr(tarnapiClient *client, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops);
/* Withdraws a kernel route; arguments and results as above (a delete that answers -25 passes silently). */
int32_t rpcclt_tarnapiKernelRouteDelVr(tarnapiClient *client, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops);

/* Reports a probe's outcome. probeReturnCode: 0 reply within the threshold, 2 reply above it, 1 time-out, unreachable or
   socket error. lastProbeRTTvalue: milliseconds, 0 for code 1. latestOperationStartUpTime: the round trip in microseconds,
   for code 1 the microseconds since the send.  R: 0 taken; other = rejected (logged, result lost). */
int32_t rpcclt_tarnapiMirelProbeResultIpSlaNotify(tarnapiClient *client, uint32_t vrfId, uint32_t ipSlaId, uint32_t probeReturnCode,
                                                  uint32_t lastProbeRTTvalue, uint32_t latestOperationStartUpTime);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <type_traits>

static_assert(sizeof(tarn_buffdesc) == 16 && std::is_trivially_copyable_v<tarn_buffdesc>);
static_assert(offsetof(tarn_buffdesc, size) == 0);
static_assert(offsetof(tarn_buffdesc, pstart) == 8);
static_assert(sizeof(InetAddr) == 20 && std::is_trivially_copyable_v<InetAddr>);
static_assert(offsetof(InetAddr, family) == 0);
static_assert(offsetof(InetAddr, ipv4) == 4);
static_assert(offsetof(InetAddr, ipv6) == 4);
static_assert(sizeof(InetPrefix) == 24 && std::is_trivially_copyable_v<InetPrefix>);
static_assert(offsetof(InetPrefix, addr) == 0);
static_assert(offsetof(InetPrefix, prefixLen) == 20);
static_assert(sizeof(NextHopRecord) == 36 && std::is_trivially_copyable_v<NextHopRecord>);
static_assert(offsetof(NextHopRecord, addr) == 0);
static_assert(offsetof(NextHopRecord, intIfNum) == 20);
static_assert(offsetof(NextHopRecord, reserved24) == 24);
static_assert(sizeof(RtoRouteRecord) == 48 && std::is_trivially_copyable_v<RtoRouteRecord>);
static_assert(offsetof(RtoRouteRecord, prefix) == 0);
static_assert(offsetof(RtoRouteRecord, prefixLen) == 20);
static_assert(offsetof(RtoRouteRecord, routeType) == 21);
static_assert(offsetof(RtoRouteRecord, reserved22) == 22);
static_assert(offsetof(RtoRouteRecord, routeProto) == 24);
static_assert(offsetof(RtoRouteRecord, rejectRoute) == 28);
static_assert(offsetof(RtoRouteRecord, discardRoute) == 29);
static_assert(offsetof(RtoRouteRecord, reportFlag) == 30);
static_assert(offsetof(RtoRouteRecord, reserved31) == 31);
static_assert(offsetof(RtoRouteRecord, metric) == 32);
static_assert(offsetof(RtoRouteRecord, numNextHops) == 36);
static_assert(offsetof(RtoRouteRecord, reserved40) == 40);
static_assert(sizeof(BestRouteRecord) == 1784 && std::is_trivially_copyable_v<BestRouteRecord>);
static_assert(offsetof(BestRouteRecord, prefix) == 0);
static_assert(offsetof(BestRouteRecord, prefixLen) == 20);
static_assert(offsetof(BestRouteRecord, routeType) == 21);
static_assert(offsetof(BestRouteRecord, reserved22) == 22);
static_assert(offsetof(BestRouteRecord, routeProto) == 24);
static_assert(offsetof(BestRouteRecord, rejectRoute) == 28);
static_assert(offsetof(BestRouteRecord, discardRoute) == 29);
static_assert(offsetof(BestRouteRecord, reportFlag) == 30);
static_assert(offsetof(BestRouteRecord, reserved31) == 31);
static_assert(offsetof(BestRouteRecord, metric) == 32);
static_assert(offsetof(BestRouteRecord, numNextHops) == 36);
static_assert(offsetof(BestRouteRecord, viaVrfDevice) == 40);
static_assert(offsetof(BestRouteRecord, rfc5549) == 41);
static_assert(offsetof(BestRouteRecord, flag8000) == 42);
static_assert(offsetof(BestRouteRecord, mplsRoute) == 43);
static_assert(offsetof(BestRouteRecord, installKernelRoute) == 44);
static_assert(offsetof(BestRouteRecord, reserved45) == 45);
static_assert(offsetof(BestRouteRecord, changeType) == 48);
static_assert(offsetof(BestRouteRecord, reserved49) == 49);
static_assert(offsetof(BestRouteRecord, nextHops) == 52);
static_assert(offsetof(BestRouteRecord, valid) == 1780);
static_assert(offsetof(BestRouteRecord, reserved1781) == 1781);
#endif

#endif
