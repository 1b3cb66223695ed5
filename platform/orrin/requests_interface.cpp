// The calls that read router interfaces. Used by orrin's one thread.

#include "interfaces.h"
#include "request_handlers.h"
#include "router_events.h"
#include "tarnapi.h"

#include <algorithm>

namespace orrin {

namespace {

// A number of an interface, by the calls that begin with family and interface.
int32_t numberOf(const Call &call, uint32_t Interface::*field) {
  const Interface *interface = findInterface(call.sw, call.args[1]);
  if (call.args[0] != TARN_FAMILY_IPV4 || interface == nullptr) {
    return interface == nullptr ? TARN_NOT_FOUND : TARN_INVALID;
  }
  call.value(0, interface->*field);
  return TARN_OK;
}

// And by those that begin with the interface.
int32_t plainNumberOf(const Call &call, uint32_t Interface::*field) {
  const Interface *interface = findInterface(call.sw, call.args[0]);
  if (interface == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.value(0, interface->*field);
  return TARN_OK;
}

const Interface *defaultVrfInterface(const Call &call) {
  const Interface *interface = findInterface(call.sw, call.args[0]);
  return interface != nullptr && interface->vrf == 0 ? interface : nullptr;
}

} // namespace

int32_t interfaceNextGet(const Call &call) {
  if (findVrf(call.sw, call.args[0]) == nullptr) {
    return TARN_NOT_FOUND;
  }
  for (auto entry = call.sw.interfaces.upper_bound(call.args[1]); entry != call.sw.interfaces.end(); ++entry) {
    if (entry->second.vrf == call.args[0] && mayBeUp(call.sw, entry->second)) {
      call.value(0, entry->first);
      return TARN_OK;
    }
  }
  noteWalked(call.sw, call.args[0], call.context.process);
  return TARN_NO_MORE;
}

int32_t interfaceTypeGet(const Call &call) {
  return plainNumberOf(call, &Interface::type);
}

int32_t interfaceNameGet(const Call &call) {
  const Interface *interface = findInterface(call.sw, call.args[0]);
  if (interface == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail = interface->name;
  return TARN_OK;
}

int32_t stackNameGet(const Call &call) {
  const Interface *interface = findInterface(call.sw, call.args[1]);
  if (interface == nullptr || interface->vrf != call.args[0]) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail = interface->device;
  return TARN_OK;
}

int32_t ipStackNameGet(const Call &call) {
  const Interface *interface = defaultVrfInterface(call);
  if (interface == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail = interface->device;
  return TARN_OK;
}

int32_t ipStackIndexGet(const Call &call) {
  const Interface *interface = defaultVrfInterface(call);
  if (interface == nullptr || interface->index == 0) {
    return TARN_NOT_FOUND;
  }
  call.value(0, interface->index);
  return TARN_OK;
}

int32_t macGet(const Call &call) {
  const Interface *interface = findInterface(call.sw, call.args[0]);
  if (interface == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail.assign(interface->mac.begin(), interface->mac.end());
  return TARN_OK;
}

int32_t addressGet(const Call &call) {
  const Interface *interface = findInterface(call.sw, call.args[1]);
  if (interface == nullptr || !interface->primary) {
    return TARN_NOT_FOUND;
  }
  call.value(0, interface->primary->address);
  call.value(1, interface->primary->length);
  return TARN_OK;
}

// The next one in ascending order, so that the walk goes on although the address of the call before was removed meanwhile.
int32_t secondaryAddressGet(const Call &call) {
  const Interface *interface = findInterface(call.sw, call.args[1]);
  if (interface == nullptr || call.args[3] > 32) {
    return interface == nullptr ? TARN_NOT_FOUND : TARN_INVALID;
  }
  const std::pair<uint32_t, uint8_t> key{call.args[2], static_cast<uint8_t>(call.args[3])};
  const auto next = std::find_if(interface->secondaries.begin(), interface->secondaries.end(),
                                 [&key](const InterfaceAddress &each) { return each.order() > key; });
  if (next == interface->secondaries.end()) {
    return TARN_NO_MORE;
  }
  call.value(0, next->address);
  call.value(1, next->length);
  call.value(2, next->index);
  return TARN_OK;
}

int32_t mtuGet(const Call &call) {
  return numberOf(call, &Interface::mtu);
}

int32_t bandwidthGet(const Call &call) {
  return numberOf(call, &Interface::bandwidth);
}

int32_t unreachablesModeGet(const Call &call) {
  return plainNumberOf(call, &Interface::unreachables);
}

int32_t redirectsModeGet(const Call &call) {
  return plainNumberOf(call, &Interface::redirects);
}

} // namespace orrin
