// The exported functions of the platform API client. Each is one remote call; what orrin publishes is read from its page
// instead. A failing call leaves its outputs as they were.

#include "calls.h"

#include <algorithm>

using namespace tarnclient;
using namespace tarnwire;

struct tarnapiClient {};

namespace {

// A handle without content: the connections belong to the threads.
tarnapiClient theClient;

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

InetAddr ipv4Address(uint32_t address) {
  InetAddr addr{};
  addr.family = TARN_FAMILY_IPV4;
  addr.ipv4 = address;
  return addr;
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
