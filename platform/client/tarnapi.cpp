// The exported functions of the platform API client. Each is one remote call; what orrin publishes is read from its page
// instead. A failing call leaves its outputs as they were.

#include "tarnapi.h"

#include "connection.h"
#include "route_feed.h"

#include <algorithm>
#include <cstring>

using namespace tarnclient;
using namespace tarnwire;

struct tarnapiClient {};

namespace {

// A handle without content: the connections belong to the threads.
tarnapiClient theClient;

using Args = std::array<uint32_t, 6>;

int32_t plainCall(Op op, const Args &args) {
  return call(op, args).result;
}

int32_t numberCall(Op op, const Args &args, uint32_t *value) {
  const Answer answer = call(op, args);
  if (answer.result == TARN_OK) {
    *value = answer.values[0];
  }
  return answer.result;
}

// Never past the buffer; the NUL only where there is room for it.
void putText(const tarn_buffdesc *out, std::string_view text) {
  const size_t length = std::min<size_t>(text.size(), out->size);
  std::memcpy(out->pstart, text.data(), length);
  if (length < out->size) {
    out->pstart[length] = '\0';
  }
}

std::string_view textOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

int32_t textCall(Op op, const Args &args, const tarn_buffdesc *out) {
  const Answer answer = call(op, args);
  if (answer.result == TARN_OK) {
    putText(out, textOf(answer.tail));
  }
  return answer.result;
}

int32_t macCall(Op op, const Args &args, const tarn_buffdesc *mac) {
  const Answer answer = call(op, args);
  if (answer.result == TARN_OK) {
    std::memcpy(mac->pstart, answer.tail.data(), std::min<size_t>(answer.tail.size(), mac->size));
  }
  return answer.result;
}

// A text that a caller gives: up to its NUL or its size.
std::string_view givenText(const tarn_buffdesc *text) {
  return {text->pstart, strnlen(text->pstart, text->size)};
}

void putName(const tarn_buffdesc *out, const NameBytes &name) {
  putText(out, {name.data(), strnlen(name.data(), name.size())});
}

// A published name of an interface, if the interface is in the wanted VRF; false sends the call to orrin.
bool publishedName(Op op, uint32_t intIfNum, const uint32_t *vrf, PublishedName PublishedInterface::*field,
                   const tarn_buffdesc *out) {
  const Published *page = intIfNum < PUBLISHED_INTERFACES ? publishedFor(op) : nullptr;
  if (page == nullptr) {
    return false;
  }
  NameBytes name;
  bool there = false;
  const bool steady = readEntry(page->interfaces[intIfNum], [&](const PublishedInterface &entry) {
    there = entry.present.load(std::memory_order_acquire) != 0 &&
            (vrf == nullptr || entry.vrf.load(std::memory_order_acquire) == *vrf);
    loadName(entry.*field, name);
  });
  if (!steady || !there) {
    return false;
  }
  putName(out, name);
  return true;
}

// Two texts behind one request, the first with its length in the args.
struct TwoTexts {
  char bytes[2 * NAME_MAX_BYTES];
  uint32_t first = 0;
  uint32_t both = 0;

  bool set(const tarn_buffdesc *one, const tarn_buffdesc *two) {
    const std::string_view texts[2] = {givenText(one), givenText(two)};
    if (texts[0].size() > NAME_MAX_BYTES || texts[1].size() > NAME_MAX_BYTES) {
      return false;
    }
    std::memcpy(bytes, texts[0].data(), texts[0].size());
    std::memcpy(bytes + texts[0].size(), texts[1].data(), texts[1].size());
    first = static_cast<uint32_t>(texts[0].size());
    both = static_cast<uint32_t>(texts[0].size() + texts[1].size());
    return true;
  }
  std::string_view view() const { return {bytes, both}; }
};

InetAddr ipv4Address(uint32_t address) {
  InetAddr addr{};
  addr.family = TARN_FAMILY_IPV4;
  addr.ipv4 = address;
  return addr;
}

// A gateway of the switch's own, or, published as 0, none.
int32_t gatewayCall(Op op, const std::atomic<uint64_t> Published::*field, InetAddr *addr) {
  uint32_t address = 0;
  int32_t result = TARN_OK;
  if (const Published *page = publishedFor(op)) {
    const uint64_t gateway = (page->*field).load(std::memory_order_acquire);
    address = static_cast<uint32_t>(gateway);
    result = gateway == 0 ? TARN_NOT_FOUND : TARN_OK;
  } else {
    result = numberCall(op, {}, &address);
  }
  if (result == TARN_OK) {
    *addr = ipv4Address(address);
  }
  return result;
}

// A kernel route and its next hops behind one request.
struct Report {
  char bytes[REPORT_MAX_BYTES];
  uint32_t size = 0;

  bool set(const RtoRouteRecord &route, const tarn_buffdesc &nextHops) {
    const size_t hops = nextHops.size / sizeof(NextHopRecord);
    if (nextHops.size % sizeof(NextHopRecord) != 0 || hops > REPORTED_HOPS_MAX || hops != route.numNextHops) {
      return false;
    }
    ReportedRoute head{
        route.prefix.family, {}, route.routeProto, route.metric, route.prefixLen, route.routeType, route.rejectRoute,
        route.discardRoute};
    std::memcpy(head.prefix, route.prefix.ipv6, sizeof head.prefix);
    add(head);
    for (size_t index = 0; index < hops; ++index) {
      NextHopRecord record;
      std::memcpy(&record, nextHops.pstart + index * sizeof record, sizeof record);
      ReportedHop hop{record.addr.family, {}, record.intIfNum};
      std::memcpy(hop.address, record.addr.ipv6, sizeof hop.address);
      add(hop);
    }
    return true;
  }
  template <class Record> void add(const Record &record) {
    std::memcpy(bytes + size, &record, sizeof record);
    size += sizeof record;
  }
};

int32_t reportCall(Op op, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops) {
  Report report;
  return report.set(*route, *nextHops) ? call(op, {vrfId}, {report.bytes, report.size}).result : int32_t{TARN_INVALID};
}

// The records of a descriptor, at most `count`.
std::span<BestRouteRecord> recordsOf(const tarn_buffdesc *records, uint32_t count) {
  const size_t room = records->size / sizeof(BestRouteRecord);
  return {reinterpret_cast<BestRouteRecord *>(records->pstart), std::min<size_t>(room, count)};
}

} // namespace

// Client, connection, VRF

extern "C" int32_t tarnapiServiceClientRegister(const char *name, uint32_t, uint32_t, tarnapiClient **client) {
  if (name[0] == '\0') {
    return TARN_INVALID;
  }
  // Without orrin too: who registers waits for it to be ready afterwards.
  Answer answer;
  callIfThere(SERVICE_CLIENT_REGISTER, {}, {}, answer);
  if (answer.result == TARN_OK) {
    *client = &theClient;
  }
  return answer.result;
}

extern "C" int32_t tarnapiSystemReadyStateGet(tarnapiClient *, uint32_t *ready) {
  if (const Published *page = publishedFor(SYSTEM_READY_STATE_GET)) {
    *ready = page->systemReady.load(std::memory_order_acquire);
    return TARN_OK;
  }
  return numberCall(SYSTEM_READY_STATE_GET, {}, ready);
}

extern "C" int32_t rpcclt_rpc_failure_occured(void) {
  return failureOccurred() ? 1 : 0;
}

extern "C" int32_t rpcclt_rpc_failure_reset(void) {
  failureReset();
  return TARN_OK;
}

extern "C" int32_t rpcclt_tarnapiConnectivityCheck(tarnapiClient *) {
  return plainCall(CONNECTIVITY_CHECK, {});
}

extern "C" int32_t rpcclt_tarnapiVrfNameGet(tarnapiClient *, uint32_t vrfId, const tarn_buffdesc *name) {
  return textCall(VRF_NAME_GET, {vrfId}, name);
}

extern "C" int32_t rpcclt_tarnapiVrfIntfNameGet(tarnapiClient *, uint32_t vrfId, const tarn_buffdesc *name) {
  if (const Published *page = vrfId < PUBLISHED_VRFS ? publishedFor(VRF_INTF_NAME_GET) : nullptr) {
    NameBytes text;
    bool there = false;
    const bool steady = readEntry(page->vrfs[vrfId], [&](const PublishedVrf &entry) {
      there = entry.present.load(std::memory_order_acquire) != 0;
      loadName(entry.interfaceName, text);
    });
    if (steady && there) {
      putName(name, text);
      return TARN_OK;
    }
  }
  return textCall(VRF_INTF_NAME_GET, {vrfId}, name);
}

extern "C" int32_t rpcclt_tarnapiRoutingStartupStatusVr(tarnapiClient *, uint32_t family, uint32_t vrfId,
                                                        uint32_t *status) {
  return numberCall(ROUTING_STARTUP_STATUS, {family, vrfId}, status);
}

extern "C" int32_t rpcclt_tarnapiRtrICMPRatelimitGet(tarnapiClient *, const tarn_buffdesc *vrfName, uint32_t *burstSize,
                                                     uint32_t *interval) {
  const Answer answer = call(ICMP_RATELIMIT_GET, {}, givenText(vrfName));
  if (answer.result == TARN_OK) {
    *burstSize = answer.values[0];
    *interval = answer.values[1];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRtrICMPEchoReplyModeGet(tarnapiClient *, const tarn_buffdesc *vrfName,
                                                         uint32_t *mode) {
  const Answer answer = call(ICMP_ECHO_REPLY_MODE_GET, {}, givenText(vrfName));
  if (answer.result == TARN_OK) {
    *mode = answer.values[0];
  }
  return answer.result;
}

// Router events and router interfaces

extern "C" int32_t rpcclt_tarnapiRouterEventRegister(tarnapiClient *, uint32_t family, uint32_t pid, uint32_t vrfId,
                                                     const tarn_buffdesc *clientName, uint32_t *clientId) {
  const Answer answer = call(ROUTER_EVENT_REGISTER, {family, pid, vrfId}, givenText(clientName));
  if (answer.result == TARN_OK) {
    *clientId = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRouterEventAcknowledge(tarnapiClient *, uint32_t vrfId, uint32_t clientId,
                                                        uint32_t eventSeq) {
  return plainCall(ROUTER_EVENT_ACKNOWLEDGE, {vrfId, clientId, eventSeq});
}

extern "C" int32_t rpcclt_tarnapiRouterEventDeregister(tarnapiClient *, uint32_t vrfId, uint32_t clientId) {
  return plainCall(ROUTER_EVENT_DEREGISTER, {vrfId, clientId});
}

extern "C" int32_t rpcclt_tarnapiRtrIntfNextGetVrf(tarnapiClient *, uint32_t vrfId, uint32_t prevIntIfNum,
                                                   uint32_t *nextIntIfNum) {
  return numberCall(INTF_NEXT_GET, {vrfId, prevIntIfNum}, nextIntIfNum);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfTypeGet(tarnapiClient *, uint32_t intIfNum, uint32_t *type) {
  if (const Published *page = intIfNum < PUBLISHED_INTERFACES ? publishedFor(INTF_TYPE_GET) : nullptr) {
    uint32_t value = 0;
    bool there = false;
    const bool steady = readEntry(page->interfaces[intIfNum], [&](const PublishedInterface &entry) {
      there = entry.present.load(std::memory_order_acquire) != 0;
      value = entry.type.load(std::memory_order_acquire);
    });
    if (steady && there) {
      *type = value;
      return TARN_OK;
    }
  }
  return numberCall(INTF_TYPE_GET, {intIfNum}, type);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfNameGet(tarnapiClient *, uint32_t intIfNum, const tarn_buffdesc *name) {
  return publishedName(INTF_NAME_GET, intIfNum, nullptr, &PublishedInterface::name, name)
             ? TARN_OK
             : textCall(INTF_NAME_GET, {intIfNum}, name);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfIpStackStkNameGet(tarnapiClient *, uint32_t vrfId, uint32_t intIfNum,
                                                          const tarn_buffdesc *name) {
  return publishedName(INTF_STK_NAME_GET, intIfNum, &vrfId, &PublishedInterface::device, name)
             ? TARN_OK
             : textCall(INTF_STK_NAME_GET, {vrfId, intIfNum}, name);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfIpStackIfNameGet(tarnapiClient *, uint32_t intIfNum,
                                                         const tarn_buffdesc *name) {
  constexpr uint32_t DEFAULT_VRF = 0;
  return publishedName(INTF_IP_STACK_NAME_GET, intIfNum, &DEFAULT_VRF, &PublishedInterface::device, name)
             ? TARN_OK
             : textCall(INTF_IP_STACK_NAME_GET, {intIfNum}, name);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfIpStackIfIndexGet(tarnapiClient *, uint32_t intIfNum, uint32_t *ifIndex) {
  return numberCall(INTF_IP_STACK_INDEX_GET, {intIfNum}, ifIndex);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfL3MacAddressGet(tarnapiClient *, uint32_t intIfNum, const tarn_buffdesc *mac) {
  return macCall(INTF_MAC_GET, {intIfNum}, mac);
}

extern "C" int32_t rpcclt_tarnapiRtrIntfIpAddrGet(tarnapiClient *, uint32_t family, uint32_t intIfNum,
                                                  InetPrefix *prefix) {
  const Answer answer = call(INTF_ADDR_GET, {family, intIfNum});
  if (answer.result == TARN_OK) {
    *prefix = {ipv4Address(answer.values[0]), answer.values[1]};
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRtrIntfSecIpAddrGet(tarnapiClient *, uint32_t family, uint32_t intIfNum,
                                                     InetPrefix *prefix, uint32_t *index) {
  const Answer answer = call(INTF_SEC_ADDR_GET, {family, intIfNum, prefix->addr.ipv4, prefix->prefixLen});
  if (answer.result == TARN_OK) {
    *prefix = {ipv4Address(answer.values[0]), answer.values[1]};
    *index = answer.values[2];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiIntfIpMtuGet(tarnapiClient *, uint32_t family, uint32_t intIfNum, uint32_t *mtu) {
  return numberCall(INTF_MTU_GET, {family, intIfNum}, mtu);
}

extern "C" int32_t rpcclt_tarnapiIntfBandwidthGet(tarnapiClient *, uint32_t family, uint32_t intIfNum,
                                                  uint32_t *bandwidth) {
  return numberCall(INTF_BANDWIDTH_GET, {family, intIfNum}, bandwidth);
}

extern "C" int32_t rpcclt_tarnapiRtrICMPUnreachablesModeGet(tarnapiClient *, uint32_t intIfNum, uint32_t *mode) {
  return numberCall(ICMP_UNREACHABLES_MODE_GET, {intIfNum}, mode);
}

extern "C" int32_t rpcclt_tarnapiRtrICMPRedirectsModeGet(tarnapiClient *, uint32_t intIfNum, uint32_t *mode) {
  return numberCall(ICMP_REDIRECTS_MODE_GET, {intIfNum}, mode);
}

// ARP

extern "C" int32_t rpcclt_tarnapiServicePortGatewayIPv4AddrGet(tarnapiClient *, InetAddr *addr) {
  return gatewayCall(SERVICE_PORT_GATEWAY_GET, &Published::servicePortGateway, addr);
}

extern "C" int32_t rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet(tarnapiClient *, InetAddr *addr) {
  return gatewayCall(NETWORK_PORT_GATEWAY_GET, &Published::networkPortGateway, addr);
}

extern "C" int32_t rpcclt_tarnapiKernelArpAdd(tarnapiClient *, uint32_t vrfId, const InetAddr *addr,
                                              const tarn_buffdesc *mac, uint32_t ifIndex, uint32_t state) {
  if (mac->size < MAC_BYTES) {
    return TARN_INVALID;
  }
  return call(KERNEL_ARP_ADD, {vrfId, addr->family, addr->ipv4, ifIndex, state}, {mac->pstart, MAC_BYTES}).result;
}

extern "C" int32_t rpcclt_tarnapiKernelArpDelete(tarnapiClient *, uint32_t vrfId, const InetAddr *addr,
                                                 uint32_t ifIndex) {
  return plainCall(KERNEL_ARP_DELETE, {vrfId, addr->family, addr->ipv4, ifIndex});
}

extern "C" int32_t rpcclt_tarnapiArpResolve(tarnapiClient *, uint32_t vrfId, const InetAddr *addr,
                                            const tarn_buffdesc *mac, uint32_t, uint32_t ifIndex, uint32_t flags) {
  return macCall(ARP_RESOLVE, {vrfId, addr->family, addr->ipv4, ifIndex, flags}, mac);
}

// RTO

extern "C" int32_t rpcclt_tarnapiBestRouteEventRegisterVr(tarnapiClient *, uint32_t vrfId, uint32_t family,
                                                          uint32_t pid, const tarn_buffdesc *clientName,
                                                          uint32_t *clientId) {
  const Answer answer = call(BEST_ROUTE_REGISTER, {vrfId, family, pid}, givenText(clientName));
  if (answer.result == TARN_OK) {
    forgetRouteChanges(answer.values[0]);
    *clientId = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiBestRouteEventDeregister(tarnapiClient *, uint32_t clientId) {
  forgetRouteChanges(clientId);
  return plainCall(BEST_ROUTE_DEREGISTER, {clientId});
}

extern "C" int32_t rpcclt_tarnapiBestRouteChangeNextGetMult(tarnapiClient *, uint32_t clientId, uint32_t count,
                                                            const tarn_buffdesc *records) {
  const std::span<BestRouteRecord> room = recordsOf(records, count);
  return room.empty() ? TARN_INVALID : nextRouteChanges(clientId, room);
}

extern "C" int32_t rpcclt_tarnapiIntfBestRoutesNextGet(tarnapiClient *, uint32_t clientId, uint32_t intIfNum,
                                                       uint32_t count, const tarn_buffdesc *records) {
  const std::span<BestRouteRecord> room = recordsOf(records, count);
  if (room.empty()) {
    return TARN_INVALID;
  }
  const uint32_t wanted = static_cast<uint32_t>(room.size());
  Answer answer = call(INTF_BEST_ROUTES_NEXT_GET, {clientId, intIfNum, wanted, room[0].prefix.ipv4, room[0].prefixLen});
  if (answer.result == TARN_OK || answer.result == TARN_NO_MORE) {
    unpackRoutes(answer.tail, room);
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRoutingProtocolRegister(tarnapiClient *, uint32_t vrfId, uint32_t family,
                                                         const tarn_buffdesc *name, const tarn_buffdesc *code,
                                                         uint32_t *protoId) {
  TwoTexts texts;
  if (!texts.set(name, code)) {
    return TARN_INVALID;
  }
  const Answer answer = call(ROUTING_PROTOCOL_REGISTER, {vrfId, family, *protoId, texts.first}, texts.view());
  if (answer.result == TARN_OK) {
    *protoId = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRouteTypeRegister(tarnapiClient *, uint32_t family, uint32_t protoId,
                                                   const tarn_buffdesc *name, const tarn_buffdesc *code,
                                                   uint32_t *routeType) {
  TwoTexts texts;
  if (!texts.set(name, code)) {
    return TARN_INVALID;
  }
  const Answer answer = call(ROUTE_TYPE_REGISTER, {family, protoId, texts.first}, texts.view());
  if (answer.result == TARN_OK) {
    *routeType = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiStackIfIndexIntIfNumGet(tarnapiClient *, uint32_t ifIndex, uint32_t *intIfNum) {
  return numberCall(STACK_INDEX_INTERFACE_GET, {ifIndex}, intIfNum);
}

extern "C" int32_t rpcclt_tarnapiKernelRouteAddVr(tarnapiClient *, uint32_t vrfId, const RtoRouteRecord *route,
                                                  const tarn_buffdesc *nextHops) {
  return reportCall(KERNEL_ROUTE_ADD, vrfId, route, nextHops);
}

extern "C" int32_t rpcclt_tarnapiKernelRouteDelVr(tarnapiClient *, uint32_t vrfId, const RtoRouteRecord *route,
                                                  const tarn_buffdesc *nextHops) {
  return reportCall(KERNEL_ROUTE_DELETE, vrfId, route, nextHops);
}
