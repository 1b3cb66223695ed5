// libtarnapi.so of the scripted platform.

#include "recorder.h"

using namespace scripted;

SCRIPTED(tarnapiServiceClientRegister, (const char *name, uint32_t arg1, uint32_t arg2, tarnapiClient **client), "0",
         name, arg1, arg2, Out{client})
SCRIPTED(tarnapiSystemReadyStateGet, (tarnapiClient * client, uint32_t *ready), "0 1", client, Out{ready})
SCRIPTED(rpcclt_rpc_failure_reset, (void), "0")
SCRIPTED(rpcclt_tarnapiConnectivityCheck, (tarnapiClient * client), "0", client)
SCRIPTED(rpcclt_tarnapiVrfNameGet, (tarnapiClient * client, uint32_t vrfId, const tarn_buffdesc *name), "0 blue",
         client, vrfId, OutText{name})
SCRIPTED(rpcclt_tarnapiVrfIntfNameGet, (tarnapiClient * client, uint32_t vrfId, const tarn_buffdesc *name),
         "0 rt0.blue", client, vrfId, OutText{name})
SCRIPTED(rpcclt_tarnapiRoutingStartupStatusVr,
         (tarnapiClient * client, uint32_t family, uint32_t vrfId, uint32_t *status), "0 1", client, family, vrfId,
         Out{status})
SCRIPTED(rpcclt_tarnapiRtrICMPRatelimitGet,
         (tarnapiClient * client, const tarn_buffdesc *vrfName, uint32_t *burstSize, uint32_t *interval), "0 100 1000",
         client, vrfName, Out{burstSize}, Out{interval})
SCRIPTED(rpcclt_tarnapiRtrICMPEchoReplyModeGet, (tarnapiClient * client, const tarn_buffdesc *vrfName, uint32_t *mode),
         "0 1", client, vrfName, Out{mode})

SCRIPTED(rpcclt_tarnapiRouterEventRegister,
         (tarnapiClient * client, uint32_t family, uint32_t pid, uint32_t vrfId, const tarn_buffdesc *clientName,
          uint32_t *clientId),
         "0 5", client, family, pid, vrfId, clientName, Out{clientId})
SCRIPTED(rpcclt_tarnapiRouterEventAcknowledge,
         (tarnapiClient * client, uint32_t vrfId, uint32_t clientId, uint32_t eventSeq), "0", client, vrfId, clientId,
         eventSeq)
SCRIPTED(rpcclt_tarnapiRouterEventDeregister, (tarnapiClient * client, uint32_t vrfId, uint32_t clientId), "0", client,
         vrfId, clientId)
SCRIPTED(rpcclt_tarnapiRtrIntfNextGetVrf,
         (tarnapiClient * client, uint32_t vrfId, uint32_t prevIntIfNum, uint32_t *nextIntIfNum), "-30", client, vrfId,
         prevIntIfNum, Out{nextIntIfNum})
SCRIPTED(rpcclt_tarnapiRtrIntfTypeGet, (tarnapiClient * client, uint32_t intIfNum, uint32_t *type), "0 1", client,
         intIfNum, Out{type})
SCRIPTED(rpcclt_tarnapiRtrIntfNameGet, (tarnapiClient * client, uint32_t intIfNum, const tarn_buffdesc *name),
         "0 1/0/1", client, intIfNum, OutText{name})
SCRIPTED(rpcclt_tarnapiRtrIntfIpStackStkNameGet,
         (tarnapiClient * client, uint32_t vrfId, uint32_t intIfNum, const tarn_buffdesc *name), "0 rt1", client, vrfId,
         intIfNum, OutText{name})
SCRIPTED(rpcclt_tarnapiRtrIntfIpStackIfNameGet, (tarnapiClient * client, uint32_t intIfNum, const tarn_buffdesc *name),
         "0 rt1", client, intIfNum, OutText{name})
SCRIPTED(rpcclt_tarnapiRtrIntfIpStackIfIndexGet, (tarnapiClient * client, uint32_t intIfNum, uint32_t *ifIndex), "0 41",
         client, intIfNum, Out{ifIndex})
SCRIPTED(rpcclt_tarnapiRtrIntfL3MacAddressGet, (tarnapiClient * client, uint32_t intIfNum, const tarn_buffdesc *mac),
         "0 020000000001", client, intIfNum, OutBytes{mac})
SCRIPTED(rpcclt_tarnapiRtrIntfIpAddrGet,
         (tarnapiClient * client, uint32_t family, uint32_t intIfNum, InetPrefix *prefix), "0 192.0.2.1/24", client,
         family, intIfNum, prefix)
SCRIPTED(rpcclt_tarnapiRtrIntfSecIpAddrGet,
         (tarnapiClient * client, uint32_t family, uint32_t intIfNum, InetPrefix *prefix, uint32_t *index), "-30",
         client, family, intIfNum, prefix, Out{index})
SCRIPTED(rpcclt_tarnapiIntfIpMtuGet, (tarnapiClient * client, uint32_t family, uint32_t intIfNum, uint32_t *mtu),
         "0 1500", client, family, intIfNum, Out{mtu})
SCRIPTED(rpcclt_tarnapiIntfBandwidthGet,
         (tarnapiClient * client, uint32_t family, uint32_t intIfNum, uint32_t *bandwidth), "0 1000000", client, family,
         intIfNum, Out{bandwidth})
SCRIPTED(rpcclt_tarnapiRtrICMPUnreachablesModeGet, (tarnapiClient * client, uint32_t intIfNum, uint32_t *mode), "0 1",
         client, intIfNum, Out{mode})
SCRIPTED(rpcclt_tarnapiRtrICMPRedirectsModeGet, (tarnapiClient * client, uint32_t intIfNum, uint32_t *mode), "0 1",
         client, intIfNum, Out{mode})

SCRIPTED(rpcclt_tarnapiServicePortGatewayIPv4AddrGet, (tarnapiClient * client, InetAddr *addr), "-29", client,
         Out{addr})
SCRIPTED(rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet, (tarnapiClient * client, InetAddr *addr), "-29", client,
         Out{addr})
SCRIPTED(rpcclt_tarnapiKernelArpAdd,
         (tarnapiClient * client, uint32_t vrfId, const InetAddr *addr, const tarn_buffdesc *mac, uint32_t ifIndex,
          uint32_t state),
         "0", client, vrfId, addr, Bytes{mac}, ifIndex, state)
SCRIPTED(rpcclt_tarnapiKernelArpDelete,
         (tarnapiClient * client, uint32_t vrfId, const InetAddr *addr, uint32_t ifIndex), "0", client, vrfId, addr,
         ifIndex)
SCRIPTED(rpcclt_tarnapiArpResolve,
         (tarnapiClient * client, uint32_t vrfId, const InetAddr *addr, const tarn_buffdesc *mac, uint32_t ipv4,
          uint32_t ifIndex, uint32_t flags),
         "0 020000000002", client, vrfId, addr, OutBytes{mac}, Ip{ipv4}, ifIndex, flags)

SCRIPTED(rpcclt_tarnapiBestRouteEventRegisterVr,
         (tarnapiClient * client, uint32_t vrfId, uint32_t family, uint32_t pid, const tarn_buffdesc *clientName,
          uint32_t *clientId),
         "0 7", client, vrfId, family, pid, clientName, Out{clientId})
SCRIPTED(rpcclt_tarnapiBestRouteEventDeregister, (tarnapiClient * client, uint32_t clientId), "0", client, clientId)
SCRIPTED(rpcclt_tarnapiBestRouteChangeNextGetMult,
         (tarnapiClient * client, uint32_t clientId, uint32_t count, const tarn_buffdesc *records), "-30", client,
         clientId, count, OutBytes{records})
SCRIPTED(rpcclt_tarnapiIntfBestRoutesNextGet,
         (tarnapiClient * client, uint32_t clientId, uint32_t intIfNum, uint32_t count, const tarn_buffdesc *records),
         "-30", client, clientId, intIfNum, count, OutBytes{records})
SCRIPTED(rpcclt_tarnapiRoutingProtocolRegister,
         (tarnapiClient * client, uint32_t vrfId, uint32_t family, const tarn_buffdesc *name, const tarn_buffdesc *code,
          uint32_t *protoId),
         "0", client, vrfId, family, name, code, InOut{protoId})
SCRIPTED(rpcclt_tarnapiRouteTypeRegister,
         (tarnapiClient * client, uint32_t family, uint32_t protoId, const tarn_buffdesc *name,
          const tarn_buffdesc *code, uint32_t *routeType),
         "0 9", client, family, protoId, name, code, Out{routeType})
SCRIPTED(rpcclt_tarnapiStackIfIndexIntIfNumGet, (tarnapiClient * client, uint32_t ifIndex, uint32_t *intIfNum), "-29",
         client, ifIndex, Out{intIfNum})
SCRIPTED(rpcclt_tarnapiKernelRouteAddVr,
         (tarnapiClient * client, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops), "0",
         client, vrfId, route, NextHops{nextHops})
SCRIPTED(rpcclt_tarnapiKernelRouteDelVr,
         (tarnapiClient * client, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops), "0",
         client, vrfId, route, NextHops{nextHops})
SCRIPTED(rpcclt_tarnapiMirelProbeResultIpSlaNotify,
         (tarnapiClient * client, uint32_t vrfId, uint32_t ipSlaId, uint32_t probeReturnCode,
          uint32_t lastProbeRTTvalue, uint32_t latestOperationStartUpTime),
         "0", client, vrfId, ipSlaId, probeReturnCode, lastProbeRTTvalue, latestOperationStartUpTime)

// The last call of every pass of the main loop: what the script wants done between two passes is done here.
extern "C" int32_t rpcclt_rpc_failure_occured(void) {
  runPendingOperations();
  return call<decltype(rpcclt_rpc_failure_occured)>("rpcclt_rpc_failure_occured", "0");
}
