// The calls that report kernel routes. Used by orrin's one thread.

#include "kernel_routes.h"
#include "request_handlers.h"
#include "tarnapi.h"

#include <cstring>

namespace orrin {

namespace {

// False when the family is none.
bool readAddress(uint32_t family, const uint8_t (&bytes)[16], IpAddress &address) {
  if (family == TARN_FAMILY_IPV4) {
    uint32_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    address = ipv4Address(number);
    return true;
  }
  address.v6 = true;
  std::memcpy(address.bytes.data(), bytes, sizeof bytes);
  return family == TARN_FAMILY_IPV6;
}

// From the request's tail; false when it is not a kernel route.
bool readRoute(std::string_view tail, KernelRoute &route) {
  tarnwire::ReportedRoute record;
  tarnwire::ReportedHop each;
  if (tail.size() < sizeof record || (tail.size() - sizeof record) % sizeof each != 0) {
    return false;
  }
  std::memcpy(&record, tail.data(), sizeof record);
  if (!readAddress(record.family, record.prefix, route.key.prefix) || !isPrefix(route.key.prefix, record.length) ||
      record.type != RouteAttrs::KERNEL) {
    return false;
  }
  route.key.length = record.length;
  route.key.metric = record.metric;
  route.proto = record.proto;
  route.reject = record.reject != 0;
  route.discard = record.discard != 0;
  for (tail.remove_prefix(sizeof record); !tail.empty(); tail.remove_prefix(sizeof each)) {
    KernelRoute::Hop hop;
    std::memcpy(&each, tail.data(), sizeof each);
    hop.interface = each.interface;
    if (!readAddress(each.family, each.address, hop.address) || each.family != record.family) {
      return false;
    }
    route.hops.push_back(hop);
  }
  return true;
}

int32_t report(const Call &call, int32_t (*apply)(Switch &, Vrf &, const KernelRoute &)) {
  Vrf *vrf = findVrf(call.sw, call.args[0]);
  KernelRoute route;
  if (vrf == nullptr || !readRoute(call.context.tail, route)) {
    return TARN_INVALID;
  }
  return apply(call.sw, *vrf, route);
}

} // namespace

int32_t kernelRouteAdd(const Call &call) {
  return report(call, addKernelRoute);
}

int32_t kernelRouteDelete(const Call &call) {
  return report(call, deleteKernelRoute);
}

} // namespace orrin
