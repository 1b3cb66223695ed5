// What the sources of the request handlers share. A handler reads the args as tarnapi_wire.h lists them, puts values and tail
// into the answer and returns the call's result.
#pragma once

#include "requests.h"

namespace orrin {

struct Call {
  Switch &sw;
  const std::array<uint32_t, 6> &args;
  const RequestContext &context;
  Answer &answer;

  void value(size_t index, uint32_t number) const { answer.reply.values[index] = number; }
};

// requests_interface.cpp
int32_t interfaceNextGet(const Call &call);
int32_t interfaceTypeGet(const Call &call);
int32_t interfaceNameGet(const Call &call);
int32_t stackNameGet(const Call &call);
int32_t ipStackNameGet(const Call &call);
int32_t ipStackIndexGet(const Call &call);
int32_t macGet(const Call &call);
int32_t addressGet(const Call &call);
int32_t secondaryAddressGet(const Call &call);
int32_t mtuGet(const Call &call);
int32_t bandwidthGet(const Call &call);
int32_t unreachablesModeGet(const Call &call);
int32_t redirectsModeGet(const Call &call);

// requests_arp.cpp
int32_t servicePortGatewayGet(const Call &call);
int32_t networkPortGatewayGet(const Call &call);
int32_t kernelArpAdd(const Call &call);
int32_t kernelArpDelete(const Call &call);
int32_t arpResolve(const Call &call);
int32_t stackIndexInterfaceGet(const Call &call);

// requests_kernel_route.cpp
int32_t kernelRouteAdd(const Call &call);
int32_t kernelRouteDelete(const Call &call);

// requests_ipsla.cpp
int32_t probeResult(const Call &call);

} // namespace orrin
