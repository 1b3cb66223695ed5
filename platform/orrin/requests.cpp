// The platform API's calls about VRFs, clients, routes and probes, and the way to the handler of a request. Used by orrin's one
// thread.

#include "requests.h"
#include "ipsla.h"
#include "kernel_routes.h"
#include "router_events.h"
#include "routes.h"

#include <cstring>

namespace orrin {

namespace {

using enum tarnwire::Op;

int32_t succeed(const Call &) {
  return TARN_OK;
}

int32_t routingStartupStatus(const Call &call) {
  const Vrf *vrf = call.vrf(1);
  if (call.args[0] != TARN_FAMILY_IPV4 || vrf == nullptr) {
    return vrf == nullptr ? TARN_NOT_FOUND : TARN_INVALID;
  }
  return call.give({vrf->routing});
}

// The VRF that a request's text names.
const Vrf *namedVrf(const Call &call) {
  for (const auto &[id, vrf] : call.sw.vrfs) {
    if (vrf.name == call.context.tail) {
      return &vrf;
    }
  }
  return nullptr;
}

int32_t icmpRatelimitGet(const Call &call) {
  const Vrf *vrf = namedVrf(call);
  return vrf == nullptr ? int32_t{TARN_NOT_FOUND} : call.give({vrf->icmpBurst, vrf->icmpInterval});
}

int32_t registerAs(const Call &call, ClientKind kind, uint32_t family, uint32_t vrfId, uint32_t pid) {
  const std::string_view name = call.context.tail;
  const bool printable = std::all_of(name.begin(), name.end(), [](char each) { return each > ' ' && each < '\x7f'; });
  const Vrf *vrf = findVrf(call.sw, vrfId);
  if (family != TARN_FAMILY_IPV4 || vrf == nullptr || name.empty() || !printable) {
    return TARN_INVALID;
  }
  if (kind == ClientKind::BEST_ROUTE && !vrf->routing) {
    return TARN_NOT_YET;
  }
  uint32_t id = 0;
  const int32_t result = registerClient(call.sw, kind, vrfId, {pid, call.context.process}, name, id);
  call.give({id});
  return result;
}

int32_t routerEventRegister(const Call &call) {
  return registerAs(call, ClientKind::ROUTER_EVENT, call.args[0], call.args[2], call.args[1]);
}

int32_t bestRouteRegister(const Call &call) {
  return registerAs(call, ClientKind::BEST_ROUTE, call.args[1], call.args[0], call.args[2]);
}

Client *routerClient(const Call &call) {
  Client *client = findClient(call.sw, ClientKind::ROUTER_EVENT, call.args[1]);
  return client != nullptr && client->vrf == call.args[0] ? client : nullptr;
}

Client *bestRouteClient(const Call &call) {
  return findClient(call.sw, ClientKind::BEST_ROUTE, call.args[0]);
}

int32_t deregister(const Call &call, const Client *client) {
  return client != nullptr && dropClient(call.sw, client->id) ? TARN_OK : TARN_NOT_FOUND;
}

int32_t routerEventAcknowledge(const Call &call) {
  Client *client = routerClient(call);
  return client == nullptr ? int32_t{TARN_NOT_FOUND} : acknowledgeEvent(call.sw, *client, call.args[2]);
}

int32_t bestRouteChangeNextGet(const Call &call) {
  Client *client = bestRouteClient(call);
  if (client == nullptr) {
    return TARN_NOT_FOUND;
  }
  ChangeQueue &changes = client->changes;
  changes.acknowledge(call.context.connection, call.args[1]);
  if (changes.takeSettled()) {
    call.sw.journal.append("client settled " + std::to_string(client->id));
  }
  if (call.args[2] == 0) {
    return TARN_OK;
  }
  constexpr size_t ROOM = tarnwire::REPLY_MAX - sizeof(tarnwire::Reply);
  const bool last = changes.fetch(call.sw.vrfs.at(client->vrf).routes, call.sw.attrs, ROOM, call.answer.tail);
  const uint64_t table = call.sw.page.tableChanges();
  call.give({static_cast<uint32_t>(table), static_cast<uint32_t>(table >> 32)});
  if (!last) {
    return TARN_OK;
  }
  client->notified = false;
  return TARN_NO_MORE;
}

int32_t interfaceBestRoutesNextGet(const Call &call) {
  constexpr uint32_t LIMIT = 50;
  static_assert(LIMIT * tarnwire::ROUTE_MAX_BYTES <= tarnwire::REPLY_MAX - sizeof(tarnwire::Reply));
  const Client *client = bestRouteClient(call);
  if (client == nullptr) {
    return TARN_NOT_FOUND;
  }
  if (call.args[2] == 0 || call.args[4] > 32) {
    return TARN_INVALID;
  }
  const Prefix key{call.args[3], static_cast<uint8_t>(call.args[4])};
  const bool more = encodeRoutesThrough(call.sw, call.sw.vrfs.at(client->vrf), call.args[1], key,
                                        std::min(call.args[2], LIMIT), call.answer.tail);
  return more ? TARN_OK : TARN_NO_MORE;
}

// Splits a tail of two texts; false when it cannot be.
bool splitTexts(std::string_view tail, uint32_t firstLength, std::string &first, std::string &second) {
  if (firstLength == 0 || firstLength > tail.size()) {
    return false;
  }
  first = tail.substr(0, firstLength);
  second = tail.substr(firstLength);
  return true;
}

int32_t routingProtocolRegister(const Call &call) {
  Protocol protocol{call.args[0], call.args[2], {}, {}};
  if (call.vrf(0) == nullptr || call.args[1] != TARN_FAMILY_IPV4 ||
      !splitTexts(call.context.tail, call.args[3], protocol.name, protocol.code)) {
    return TARN_INVALID;
  }
  std::erase_if(call.sw.protocols,
                [&](const Protocol &each) { return each.vrf == protocol.vrf && each.name == protocol.name; });
  call.sw.protocols.push_back(std::move(protocol));
  return call.give({call.args[2]});
}

int32_t routeTypeRegister(const Call &call) {
  RouteType type{call.args[1], 0, {}, {}};
  const auto protocol = std::find_if(call.sw.protocols.begin(), call.sw.protocols.end(),
                                     [&](const Protocol &each) { return each.id == type.protocol; });
  if (protocol == call.sw.protocols.end() || call.args[0] != TARN_FAMILY_IPV4 ||
      !splitTexts(call.context.tail, call.args[2], type.name, type.code)) {
    return TARN_INVALID;
  }
  for (const RouteType &each : call.sw.routeTypes) {
    if (each.protocol == type.protocol && each.name == type.name) {
      return call.give({each.id});
    }
  }
  type.id = static_cast<uint32_t>(call.sw.routeTypes.size()) + 1;
  call.sw.routeTypes.push_back(std::move(type));
  return call.give({call.sw.routeTypes.back().id});
}

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

int32_t kernelRoute(const Call &call, int32_t (*apply)(Switch &, Vrf &, const KernelRoute &)) {
  KernelRoute route;
  if (call.vrf(0) == nullptr || !readRoute(call.context.tail, route)) {
    return TARN_INVALID;
  }
  return apply(call.sw, *call.vrf(0), route);
}

int32_t probeResult(const Call &call) {
  Vrf *vrf = call.vrf(0);
  const auto &[id, operation, code, msec, usec, unused] = call.args;
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  if (operation == 0 || operation > IPSLA_OPERATION_MAX || code >= IpSlaReports::CODE_COUNT) {
    return TARN_INVALID;
  }
  IpSlaReports &reports = vrf->reports[operation];
  reports.code = code;
  reports.msec = msec;
  reports.usec = usec;
  ++reports.counts[code];
  if (code != IpSlaReports::FAILED) {
    reports.lowestUsec = std::min(reports.lowestUsec, usec);
    reports.highestUsec = std::max(reports.highestUsec, usec);
    reports.sumUsec += usec;
  }
  return TARN_OK;
}

constexpr std::array<RequestRow, INTERFACE_ROWS_BEGIN> FIRST_ROWS = {{
    {SERVICE_CLIENT_REGISTER, succeed},
    {CONNECTIVITY_CHECK, succeed},
    {SYSTEM_READY_STATE_GET, [](const Call &call) { return call.give({call.sw.systemReady}); }},
    {VRF_NAME_GET, [](const Call &call) { return call.text(call.vrf(0), &Vrf::name); }},
    {VRF_INTF_NAME_GET, [](const Call &call) { return call.text(call.vrf(0), &Vrf::interfaceName); }},
    {ROUTING_STARTUP_STATUS, routingStartupStatus},
    {ICMP_RATELIMIT_GET, icmpRatelimitGet},
    {ICMP_ECHO_REPLY_MODE_GET, [](const Call &call) { return call.number(namedVrf(call), &Vrf::icmpEchoReply); }},
    {ROUTER_EVENT_REGISTER, routerEventRegister},
    {ROUTER_EVENT_ACKNOWLEDGE, routerEventAcknowledge},
    {ROUTER_EVENT_DEREGISTER, [](const Call &call) { return deregister(call, routerClient(call)); }},
}};
static_assert(inOrderFrom(SERVICE_CLIENT_REGISTER, FIRST_ROWS));

constexpr std::array<RequestRow, tarnwire::OP_COUNT - INTERFACE_ROWS_END> LAST_ROWS = {{
    {BEST_ROUTE_REGISTER, bestRouteRegister},
    {BEST_ROUTE_DEREGISTER, [](const Call &call) { return deregister(call, bestRouteClient(call)); }},
    {BEST_ROUTE_CHANGE_NEXT_GET, bestRouteChangeNextGet},
    {INTF_BEST_ROUTES_NEXT_GET, interfaceBestRoutesNextGet},
    {ROUTING_PROTOCOL_REGISTER, routingProtocolRegister},
    {ROUTE_TYPE_REGISTER, routeTypeRegister},
    {KERNEL_ROUTE_ADD, [](const Call &call) { return kernelRoute(call, addKernelRoute); }},
    {KERNEL_ROUTE_DELETE, [](const Call &call) { return kernelRoute(call, deleteKernelRoute); }},
    {PROBE_RESULT, probeResult},
}};
static_assert(inOrderFrom(INTERFACE_ROWS_END, LAST_ROWS));

const RequestRow &rowOf(uint32_t op) {
  if (op < INTERFACE_ROWS_BEGIN) {
    return FIRST_ROWS[op];
  }
  return op < INTERFACE_ROWS_END ? INTERFACE_ROWS[op - INTERFACE_ROWS_BEGIN] : LAST_ROWS[op - INTERFACE_ROWS_END];
}

} // namespace

void answerRequest(Switch &sw, const tarnwire::Request &request, const RequestContext &context, Answer &answer) {
  const bool whole = request.op < tarnwire::OP_COUNT && context.tail.size() <= tarnwire::OPS[request.op].tailMax;
  answer.reply.result =
      whole ? rowOf(request.op).handler(Call{sw, request.args, context, answer}) : int32_t{TARN_INVALID};
}

} // namespace orrin
