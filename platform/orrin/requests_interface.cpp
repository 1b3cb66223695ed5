// The calls about interfaces, neighbours and kernel indexes. Used by orrin's one thread.

#include "arp.h"
#include "interfaces.h"
#include "netns.h"
#include "requests.h"
#include "router_events.h"

#include <cstring>

namespace orrin {

namespace {

using enum tarnwire::Op;

int32_t interfaceNextGet(const Call &call) {
  if (call.vrf(0) == nullptr) {
    return TARN_NOT_FOUND;
  }
  for (auto entry = call.sw.interfaces.upper_bound(call.args[1]); entry != call.sw.interfaces.end(); ++entry) {
    if (entry->second.vrf == call.args[0] && mayBeUp(call.sw, entry->second)) {
      return call.give({entry->first});
    }
  }
  noteWalked(call.sw, call.args[0], call.context.process);
  return TARN_NO_MORE;
}

// By the calls that begin with family and interface.
int32_t ipv4Number(const Call &call, uint32_t Interface::*field) {
  const bool wrongFamily = call.interface(1) != nullptr && call.args[0] != TARN_FAMILY_IPV4;
  return wrongFamily ? int32_t{TARN_INVALID} : call.number(call.interface(1), field);
}

const Interface *interfaceOfVrf(const Call &call, size_t arg, uint32_t vrf) {
  const Interface *interface = call.interface(arg);
  return interface != nullptr && interface->vrf == vrf ? interface : nullptr;
}

int32_t ipStackIndexGet(const Call &call) {
  const Interface *interface = interfaceOfVrf(call, 0, 0);
  return interface == nullptr || interface->index == 0 ? int32_t{TARN_NOT_FOUND} : call.give({interface->index});
}

int32_t macGet(const Call &call) {
  const Interface *interface = call.interface(0);
  if (interface == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail.assign(interface->mac.begin(), interface->mac.end());
  return TARN_OK;
}

int32_t addressGet(const Call &call) {
  const Interface *interface = call.interface(1);
  if (interface == nullptr || !interface->primary) {
    return TARN_NOT_FOUND;
  }
  return call.give({interface->primary->address, interface->primary->length});
}

// The next one in ascending order, so that the walk goes on although the address of the call before was removed meanwhile.
int32_t secondaryAddressGet(const Call &call) {
  const Interface *interface = call.interface(1);
  if (interface == nullptr || call.args[3] > 32) {
    return interface == nullptr ? TARN_NOT_FOUND : TARN_INVALID;
  }
  const std::pair<uint32_t, uint8_t> key{call.args[2], static_cast<uint8_t>(call.args[3])};
  const auto next = std::find_if(interface->secondaries.begin(), interface->secondaries.end(),
                                 [&key](const InterfaceAddress &each) { return each.order() > key; });
  return next == interface->secondaries.end() ? int32_t{TARN_NO_MORE}
                                              : call.give({next->address, next->length, next->index});
}

int32_t gatewayGet(const Call &call, const std::optional<uint32_t> &address) {
  return address ? call.give({*address}) : int32_t{TARN_NOT_FOUND};
}

// The VRF, family and address with which the ARP calls begin; a tarnapi.h result.
int32_t checkNeighbour(const Call &call) {
  if (call.vrf(0) == nullptr) {
    return TARN_NOT_FOUND;
  }
  return call.args[1] == TARN_FAMILY_IPV4 && call.args[2] != 0 ? TARN_OK : TARN_INVALID;
}

int32_t kernelArpAdd(const Call &call) {
  if (const int32_t result = checkNeighbour(call); result != TARN_OK) {
    return result;
  }
  Mac mac{};
  if (call.context.tail.size() != mac.size()) {
    return TARN_INVALID;
  }
  std::memcpy(mac.data(), call.context.tail.data(), mac.size());
  return addKernelNeighbour(call.sw, *call.vrf(0), call.args[2], mac, call.args[3], call.args[4]);
}

int32_t kernelArpDelete(const Call &call) {
  const int32_t result = checkNeighbour(call);
  return result == TARN_OK ? deleteKernelNeighbour(call.sw, *call.vrf(0), call.args[2], call.args[3]) : result;
}

int32_t arpResolve(const Call &call) {
  Mac mac{};
  int32_t result = checkNeighbour(call);
  if (result == TARN_OK) {
    result = resolveNeighbour(call.sw, *call.vrf(0), call.args[2], mac);
  }
  if (result == TARN_OK) {
    call.answer.tail.assign(mac.begin(), mac.end());
  }
  return result;
}

// The call names no VRF: it is the one whose namespace the caller runs in, or else that of the caller's registration.
const Vrf *vrfOfCaller(const Call &call) {
  if (const Vrf *vrf = vrfOfProcess(call.sw, call.context.process)) {
    return vrf;
  }
  for (const auto &[id, client] : call.sw.clients) {
    const uint32_t process = client.process != 0 ? client.process : client.pid;
    if (client.registered && process == call.context.process) {
      return &call.sw.vrfs.at(client.vrf);
    }
  }
  return nullptr;
}

int32_t stackIndexInterfaceGet(const Call &call) {
  const Vrf *vrf = vrfOfCaller(call);
  const uint32_t number = vrf == nullptr ? 0 : interfaceOfIndex(call.sw, *vrf, call.args[0]);
  return number == 0 ? int32_t{TARN_NOT_FOUND} : call.give({number});
}

} // namespace

constexpr std::array<RequestRow, INTERFACE_ROWS.size()> INTERFACE_ROWS = {{
    {INTF_NEXT_GET, interfaceNextGet},
    {INTF_TYPE_GET, [](const Call &call) { return call.number(call.interface(0), &Interface::type); }},
    {INTF_NAME_GET, [](const Call &call) { return call.text(call.interface(0), &Interface::name); }},
    {INTF_STK_NAME_GET,
     [](const Call &call) { return call.text(interfaceOfVrf(call, 1, call.args[0]), &Interface::device); }},
    {INTF_IP_STACK_NAME_GET,
     [](const Call &call) { return call.text(interfaceOfVrf(call, 0, 0), &Interface::device); }},
    {INTF_IP_STACK_INDEX_GET, ipStackIndexGet},
    {INTF_MAC_GET, macGet},
    {INTF_ADDR_GET, addressGet},
    {INTF_SEC_ADDR_GET, secondaryAddressGet},
    {INTF_MTU_GET, [](const Call &call) { return ipv4Number(call, &Interface::mtu); }},
    {INTF_BANDWIDTH_GET, [](const Call &call) { return ipv4Number(call, &Interface::bandwidth); }},
    {ICMP_UNREACHABLES_MODE_GET,
     [](const Call &call) { return call.number(call.interface(0), &Interface::unreachables); }},
    {ICMP_REDIRECTS_MODE_GET, [](const Call &call) { return call.number(call.interface(0), &Interface::redirects); }},
    {SERVICE_PORT_GATEWAY_GET, [](const Call &call) { return gatewayGet(call, call.sw.gateways.servicePort); }},
    {NETWORK_PORT_GATEWAY_GET, [](const Call &call) { return gatewayGet(call, call.sw.gateways.networkPort); }},
    {KERNEL_ARP_ADD, kernelArpAdd},
    {KERNEL_ARP_DELETE, kernelArpDelete},
    {ARP_RESOLVE, arpResolve},
    {STACK_INDEX_INTERFACE_GET, stackIndexInterfaceGet},
}};
static_assert(inOrderFrom(INTERFACE_ROWS_BEGIN, INTERFACE_ROWS));

} // namespace orrin
