// The calls about neighbours and kernel indexes. Used by orrin's one thread.

#include "arp.h"
#include "netns.h"
#include "request_handlers.h"
#include "tarnapi.h"

#include <algorithm>
#include <cstring>

namespace orrin {

namespace {

// The VRF and address with which the ARP calls begin; a tarnapi.h result.
int32_t neighbourOf(const Call &call, Vrf *&vrf, uint32_t &address) {
  vrf = findVrf(call.sw, call.args[0]);
  address = call.args[2];
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  return call.args[1] == TARN_FAMILY_IPV4 && address != 0 ? TARN_OK : TARN_INVALID;
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

int32_t gatewayGet(const Call &call, const std::optional<uint32_t> &address) {
  if (!address) {
    return TARN_NOT_FOUND;
  }
  call.value(0, *address);
  return TARN_OK;
}

} // namespace

int32_t servicePortGatewayGet(const Call &call) {
  return gatewayGet(call, call.sw.gateways.servicePort);
}

int32_t networkPortGatewayGet(const Call &call) {
  return gatewayGet(call, call.sw.gateways.networkPort);
}

int32_t kernelArpAdd(const Call &call) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  if (const int32_t result = neighbourOf(call, vrf, address); result != TARN_OK) {
    return result;
  }
  Mac mac{};
  if (call.context.tail.size() != mac.size()) {
    return TARN_INVALID;
  }
  std::memcpy(mac.data(), call.context.tail.data(), mac.size());
  return addKernelNeighbour(call.sw, *vrf, address, mac, call.args[3], call.args[4]);
}

int32_t kernelArpDelete(const Call &call) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  const int32_t result = neighbourOf(call, vrf, address);
  return result == TARN_OK ? deleteKernelNeighbour(call.sw, *vrf, address, call.args[3]) : result;
}

int32_t arpResolve(const Call &call) {
  Vrf *vrf = nullptr;
  uint32_t address = 0;
  Mac mac{};
  int32_t result = neighbourOf(call, vrf, address);
  if (result == TARN_OK) {
    result = resolveNeighbour(call.sw, *vrf, address, mac);
  }
  if (result == TARN_OK) {
    call.answer.tail.assign(mac.begin(), mac.end());
  }
  return result;
}

int32_t stackIndexInterfaceGet(const Call &call) {
  const Vrf *vrf = vrfOfCaller(call);
  const uint32_t number = vrf == nullptr ? 0 : interfaceOfIndex(call.sw, *vrf, call.args[0]);
  if (number == 0) {
    return TARN_NOT_FOUND;
  }
  call.value(0, number);
  return TARN_OK;
}

} // namespace orrin
