// The platform API's calls, one handler each, in one table. Handlers read the request's args as tarnapi_wire.h lists them and
// return the call's result. Used by orrin's one thread.

#include "request_handlers.h"
#include "router_events.h"
#include "routes.h"
#include "tarnapi.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace orrin {

namespace {

using Handler = int32_t (*)(const Call &);

int32_t serviceClientRegister(const Call &) {
  return TARN_OK;
}

int32_t connectivityCheck(const Call &) {
  return TARN_OK;
}

int32_t systemReadyStateGet(const Call &call) {
  call.value(0, call.sw.systemReady ? 1 : 0);
  return TARN_OK;
}

int32_t vrfNameGet(const Call &call) {
  const Vrf *vrf = findVrf(call.sw, call.args[0]);
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail = vrf->name;
  return TARN_OK;
}

int32_t vrfIntfNameGet(const Call &call) {
  const Vrf *vrf = findVrf(call.sw, call.args[0]);
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.answer.tail = vrf->interfaceName;
  return TARN_OK;
}

int32_t routingStartupStatus(const Call &call) {
  const Vrf *vrf = findVrf(call.sw, call.args[1]);
  if (call.args[0] != TARN_FAMILY_IPV4 || vrf == nullptr) {
    return vrf == nullptr ? TARN_NOT_FOUND : TARN_INVALID;
  }
  call.value(0, vrf->routing ? 1 : 0);
  return TARN_OK;
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
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.value(0, vrf->icmpBurst);
  call.value(1, vrf->icmpInterval);
  return TARN_OK;
}

int32_t icmpEchoReplyModeGet(const Call &call) {
  const Vrf *vrf = namedVrf(call);
  if (vrf == nullptr) {
    return TARN_NOT_FOUND;
  }
  call.value(0, vrf->icmpEchoReply);
  return TARN_OK;
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
  call.value(0, id);
  return result;
}

int32_t routerEventRegister(const Call &call) {
  return registerAs(call, ClientKind::ROUTER_EVENT, call.args[0], call.args[2], call.args[1]);
}

Client *routerClient(const Call &call) {
  Client *client = findClient(call.sw, ClientKind::ROUTER_EVENT, call.args[1]);
  return client != nullptr && client->vrf == call.args[0] ? client : nullptr;
}

int32_t routerEventAcknowledge(const Call &call) {
  Client *client = routerClient(call);
  return client == nullptr ? int32_t{TARN_NOT_FOUND} : acknowledgeEvent(call.sw, *client, call.args[2]);
}

int32_t routerEventDeregister(const Call &call) {
  return routerClient(call) != nullptr && dropClient(call.sw, call.args[1]) ? TARN_OK : TARN_NOT_FOUND;
}

int32_t bestRouteRegister(const Call &call) {
  return registerAs(call, ClientKind::BEST_ROUTE, call.args[1], call.args[0], call.args[2]);
}

int32_t bestRouteDeregister(const Call &call) {
  return findClient(call.sw, ClientKind::BEST_ROUTE, call.args[0]) != nullptr && dropClient(call.sw, call.args[0])
             ? TARN_OK
             : TARN_NOT_FOUND;
}

int32_t bestRouteChangeNextGet(const Call &call) {
  Client *client = findClient(call.sw, ClientKind::BEST_ROUTE, call.args[0]);
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
  call.value(0, static_cast<uint32_t>(call.sw.page.tableChanges()));
  call.value(1, static_cast<uint32_t>(call.sw.page.tableChanges() >> 32));
  if (!last) {
    return TARN_OK;
  }
  client->notified = false;
  return TARN_NO_MORE;
}

int32_t interfaceBestRoutesNextGet(const Call &call) {
  constexpr uint32_t LIMIT = 50;
  static_assert(LIMIT * tarnwire::ROUTE_MAX_BYTES <= tarnwire::REPLY_MAX - sizeof(tarnwire::Reply));
  const Client *client = findClient(call.sw, ClientKind::BEST_ROUTE, call.args[0]);
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
  if (findVrf(call.sw, protocol.vrf) == nullptr || call.args[1] != TARN_FAMILY_IPV4 ||
      !splitTexts(call.context.tail, call.args[3], protocol.name, protocol.code)) {
    return TARN_INVALID;
  }
  std::erase_if(call.sw.protocols,
                [&](const Protocol &each) { return each.vrf == protocol.vrf && each.name == protocol.name; });
  call.value(0, protocol.id);
  call.sw.protocols.push_back(std::move(protocol));
  return TARN_OK;
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
      call.value(0, each.id);
      return TARN_OK;
    }
  }
  type.id = static_cast<uint32_t>(call.sw.routeTypes.size()) + 1;
  call.value(0, type.id);
  call.sw.routeTypes.push_back(std::move(type));
  return TARN_OK;
}

struct HandlerRow {
  tarnwire::Op op;
  Handler handler;
};

constexpr HandlerRow HANDLERS[] = {
    {tarnwire::SERVICE_CLIENT_REGISTER, serviceClientRegister},
    {tarnwire::CONNECTIVITY_CHECK, connectivityCheck},
    {tarnwire::SYSTEM_READY_STATE_GET, systemReadyStateGet},
    {tarnwire::VRF_NAME_GET, vrfNameGet},
    {tarnwire::VRF_INTF_NAME_GET, vrfIntfNameGet},
    {tarnwire::ROUTING_STARTUP_STATUS, routingStartupStatus},
    {tarnwire::ICMP_RATELIMIT_GET, icmpRatelimitGet},
    {tarnwire::ICMP_ECHO_REPLY_MODE_GET, icmpEchoReplyModeGet},
    {tarnwire::ROUTER_EVENT_REGISTER, routerEventRegister},
    {tarnwire::ROUTER_EVENT_ACKNOWLEDGE, routerEventAcknowledge},
    {tarnwire::ROUTER_EVENT_DEREGISTER, routerEventDeregister},
    {tarnwire::INTF_NEXT_GET, interfaceNextGet},
    {tarnwire::INTF_TYPE_GET, interfaceTypeGet},
    {tarnwire::INTF_NAME_GET, interfaceNameGet},
    {tarnwire::INTF_STK_NAME_GET, stackNameGet},
    {tarnwire::INTF_IP_STACK_NAME_GET, ipStackNameGet},
    {tarnwire::INTF_IP_STACK_INDEX_GET, ipStackIndexGet},
    {tarnwire::INTF_MAC_GET, macGet},
    {tarnwire::INTF_ADDR_GET, addressGet},
    {tarnwire::INTF_SEC_ADDR_GET, secondaryAddressGet},
    {tarnwire::INTF_MTU_GET, mtuGet},
    {tarnwire::INTF_BANDWIDTH_GET, bandwidthGet},
    {tarnwire::ICMP_UNREACHABLES_MODE_GET, unreachablesModeGet},
    {tarnwire::ICMP_REDIRECTS_MODE_GET, redirectsModeGet},
    {tarnwire::SERVICE_PORT_GATEWAY_GET, servicePortGatewayGet},
    {tarnwire::NETWORK_PORT_GATEWAY_GET, networkPortGatewayGet},
    {tarnwire::KERNEL_ARP_ADD, kernelArpAdd},
    {tarnwire::KERNEL_ARP_DELETE, kernelArpDelete},
    {tarnwire::ARP_RESOLVE, arpResolve},
    {tarnwire::STACK_INDEX_INTERFACE_GET, stackIndexInterfaceGet},
    {tarnwire::BEST_ROUTE_REGISTER, bestRouteRegister},
    {tarnwire::BEST_ROUTE_DEREGISTER, bestRouteDeregister},
    {tarnwire::BEST_ROUTE_CHANGE_NEXT_GET, bestRouteChangeNextGet},
    {tarnwire::INTF_BEST_ROUTES_NEXT_GET, interfaceBestRoutesNextGet},
    {tarnwire::ROUTING_PROTOCOL_REGISTER, routingProtocolRegister},
    {tarnwire::ROUTE_TYPE_REGISTER, routeTypeRegister},
    {tarnwire::KERNEL_ROUTE_ADD, kernelRouteAdd},
    {tarnwire::KERNEL_ROUTE_DELETE, kernelRouteDelete},
    {tarnwire::PROBE_RESULT, probeResult},
};

constexpr bool everyOpHasARow() {
  std::array<bool, tarnwire::OP_COUNT> has{};
  for (const HandlerRow &row : HANDLERS) {
    has[row.op] = true;
  }
  return std::find(has.begin(), has.end(), false) == has.end();
}
static_assert(everyOpHasARow());

constexpr std::array<Handler, tarnwire::OP_COUNT> handlersByOp() {
  std::array<Handler, tarnwire::OP_COUNT> handlers{};
  for (const HandlerRow &row : HANDLERS) {
    handlers[row.op] = row.handler;
  }
  return handlers;
}

constexpr std::array<Handler, tarnwire::OP_COUNT> HANDLER_OF = handlersByOp();

} // namespace

void answerRequest(Switch &sw, const tarnwire::Request &request, const RequestContext &context, Answer &answer) {
  const bool whole = request.op < tarnwire::OP_COUNT && context.tail.size() <= tarnwire::OPS[request.op].tailMax;
  answer.reply.result = whole ? HANDLER_OF[request.op](Call{sw, request.args, context, answer}) : int32_t{TARN_INVALID};
}

} // namespace orrin
