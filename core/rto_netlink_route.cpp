// From the kernel's route message to the task's: which routes are reported, and what RTO is told of them. Listener's thread.
// A route that cannot be reported is dropped and counted.

#include "api_lock.h"
#include "mirel_router_table.h"
#include "netlink_filter.h"
#include "rto_netlink.h"
#include "rto_netlink_trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

Counter numExtRouteInvalid;
Counter numExtRouteQueueDrops;

namespace {

constexpr char LOG_AREA[] = "application/routing/mirel/core/rto_netlink";
constexpr const char *OPERATION = "rtoExternalRouteProcess";

constexpr uint32_t DESTINATION_INVALID = UINT32_MAX; // 255.255.255.255
constexpr uint8_t PREFIX6_HOST = 128;
constexpr uint8_t IPV4_BITS = 32;
constexpr uint8_t IPV4_MAPPED[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}; // ::ffff:0:0/96

uint32_t flagsOf(uint8_t routeKind) {
  switch (routeKind) {
  case RTN_UNREACHABLE:
  case RTN_PROHIBIT:
    return EXT_ROUTE_REJECT;
  case RTN_BLACKHOLE:
    return EXT_ROUTE_DISCARD;
  default:
    return 0;
  }
}

// The front of an attribute's data, if there is enough of it.
template <typename T> bool dataRead(const NetlinkAttr &attr, T &value) {
  if (attr.data.size() < sizeof value) {
    return false;
  }
  memcpy(&value, attr.data.data(), sizeof value);
  return true;
}

void headerTrace(const rtmsg &header) {
  MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION,
              "\nMsgHdrFields on Ext Route:- \nrtm_family [%d] \nrtm_dst_len [%d] \nrtm_src_len [%d] \nrtm_tos [%d] "
              "\nrtm_table [%d] \nrtm_protocol [%d] \nrtm_scope [%d] \nrtm_type [%d] \nrtm_flags [%x]\n\n",
              header.rtm_family, header.rtm_dst_len, header.rtm_src_len, header.rtm_tos, header.rtm_table,
              header.rtm_protocol, header.rtm_scope, header.rtm_type, header.rtm_flags);
}

// What the attributes of an IPv4 route say.
struct RouteFields {
  uint32_t destination = 0;
  uint32_t mask = 0;
  uint32_t gateway = 0;
  uint32_t intIfNum = 0; // 0 = unknown
  uint32_t metric = 0;
};

RouteFields fieldsRead(const rtmsg &header, NetlinkBytes attributes) {
  RouteFields fields;
  std::optional<uint32_t> priority;
  for (const NetlinkAttr &attr : netlinkAttrs(attributes)) {
    uint32_t word = 0;
    const bool hasWord = dataRead(attr, word);
    switch (attr.type) {
    case RTA_DST:
      if (hasWord) {
        fields.destination = ntohl(word);
        fields.mask = pfxLenToMask(std::min(header.rtm_dst_len, IPV4_BITS));
      }
      break;
    case RTA_OIF:
      if (hasWord) {
        mirelIntIfNumFromStkIfIndex(word, &fields.intIfNum);
      }
      break;
    case RTA_GATEWAY:
      fields.gateway = hasWord ? ntohl(word) : fields.gateway;
      break;
    case RTA_METRICS:
      if (hasWord) {
        fields.metric = word;
        MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "metric =[%d]\n", word);
      }
      break;
    default:
      if (attr.type == RTA_PRIORITY && hasWord) {
        priority = word;
      }
      MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Unsupported rtattr_ptr->rta_type = %d\n", attr.type);
      break;
    }
  }
  fields.metric = priority.value_or(fields.metric);
  return fields;
}

enum class Conversion { DONE, INVALID, UNANSWERED };

// Fills the message from an IPv4 route.
Conversion ipv4Convert(const rtmsg &header, NetlinkBytes attributes, uint32_t flags, rto_extRoute_msg &msg) {
  const RouteFields fields = fieldsRead(header, attributes);
  MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, "Msg on Ext Route %s mask %s via %s on IntIf %d Action %d \n\n",
              AddrText(fields.destination).text, AddrText(fields.mask).text, AddrText(fields.gateway).text,
              fields.intIfNum, msg.action);
  if (fields.destination == DESTINATION_INVALID || (fields.intIfNum == 0 && flags == 0)) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Invalid route! Route %s mask %s via %s on IntIf %d Action %d \n\n",
                AddrText(fields.destination).text, AddrText(fields.mask).text, AddrText(fields.gateway).text,
                fields.intIfNum, msg.action);
    return Conversion::INVALID;
  }
  ExtRoute &route = msg.ipv4;
  route.destination = fields.destination;
  route.mask = fields.mask;
  route.routeType = EXT_ROUTE_TYPE;
  route.routeProto = EXT_ROUTE_PROTO;
  route.reportFlag = EXT_ROUTE_REPORT_FLAG;
  route.metric = fields.metric;
  route.flags = flags;
  if (flags == 0) {
    route.nextHops[0] = {.gateway = fields.gateway, .intIfNum = fields.intIfNum};
    route.numNextHops = 1;
  }
  return Conversion::DONE;
}

// What the attributes of an IPv6 route say.
struct RouteFields6 {
  uint8_t destination[16] = {};
  uint8_t prefixLen = 0;
  uint8_t gateway[16] = {};
  uint32_t intIfNum = 0;   // 0 = unknown
  bool unanswered = false; // the switch did not say which interface it is
};

// A switch may also answer so for a device that is not its own.
bool rpcFailureSeen() {
  const ApiLock lock;
  return rpcclt_rpc_failure_occured() == 1;
}

RouteFields6 fields6Read(const rtmsg &header, NetlinkBytes attributes) {
  RouteFields6 fields;
  for (const NetlinkAttr &attr : netlinkAttrs(attributes)) {
    uint32_t ifIndex = 0;
    switch (attr.type) {
    case RTA_DST:
      if (dataRead(attr, fields.destination)) {
        fields.prefixLen = header.rtm_dst_len;
      }
      break;
    case RTA_OIF:
      if (dataRead(attr, ifIndex)) {
        const int32_t result = apiCall(rpcclt_tarnapiStackIfIndexIntIfNumGet, ifIndex, &fields.intIfNum);
        fields.unanswered = result == TARN_FAILURE && rpcFailureSeen();
      }
      break;
    case RTA_GATEWAY:
      dataRead(attr, fields.gateway);
      break;
    default:
      MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, " rtattr_ptr->rta_type = %d\n", attr.type);
      break;
    }
  }
  return fields;
}

bool ipv6Valid(const rtmsg &header, const RouteFields6 &fields, uint32_t flags, uint32_t action) {
  const bool mapped = memcmp(fields.destination, IPV4_MAPPED, sizeof IPV4_MAPPED) == 0;
  if (mapped || (fields.intIfNum == 0 && flags == 0)) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Invalid route! %s/%d via %s on IntIf %d Action %d \n\n",
                AddrText(fields.destination).text, fields.prefixLen, AddrText(fields.gateway).text, fields.intIfNum,
                action);
    return false;
  }
  if (fields.prefixLen == PREFIX6_HOST && header.rtm_flags == RTM_F_CLONED) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION,
                "Invalid route! %s/%d via %s on IntIf %d Action %d netlink-route rtm_flags %d\n\n",
                AddrText(fields.destination).text, fields.prefixLen, AddrText(fields.gateway).text, fields.intIfNum,
                action, header.rtm_flags);
    return false;
  }
  return true;
}

// Fills the message from a route of any other family.
Conversion ipv6Convert(const rtmsg &header, NetlinkBytes attributes, uint32_t flags, rto_extRoute_msg &msg) {
  msg.action += RT_NETLINK_ADD6 - RT_NETLINK_ADD;
  const RouteFields6 fields = fields6Read(header, attributes);
  MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, "Msg on Ext Route %s/%d via %s on IntIf %d Action %d \n\n",
              AddrText(fields.destination).text, fields.prefixLen, AddrText(fields.gateway).text, fields.intIfNum,
              msg.action);
  if (!ipv6Valid(header, fields, flags, msg.action)) {
    return fields.unanswered ? Conversion::UNANSWERED : Conversion::INVALID;
  }
  ExtRoute6 &route = msg.ipv6;
  memcpy(route.destination, fields.destination, sizeof route.destination);
  route.prefixLen = fields.prefixLen;
  route.routeType = EXT_ROUTE_TYPE;
  route.reportFlag = EXT_ROUTE_REPORT_FLAG;
  route.flags = flags;
  if (flags == 0) {
    memcpy(route.nextHops[0].gateway, fields.gateway, sizeof fields.gateway);
    route.nextHops[0].intIfNum = fields.intIfNum;
    route.numNextHops = 1;
  }
  return Conversion::DONE;
}

struct Converted {
  std::unique_ptr<rto_extRoute_msg> msg; // null: no memory
  Conversion outcome = Conversion::INVALID;
};

Converted convert(const NetlinkMessage &message, uint32_t action) {
  rtmsg header;
  memcpy(&header, message.payload.data(), sizeof header);
  const NetlinkBytes attributes = message.payload.subspan(sizeof header);
  // Cleared as a whole: braces promise that for the IPv4 layout only.
  Converted converted{.msg = std::unique_ptr<rto_extRoute_msg>(new (std::nothrow) rto_extRoute_msg())};
  if (!converted.msg) {
    MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, "  Memory alloc failure for rto_extRoute_msg with error: %s\n\n",
                strerror(ENOMEM));
    return converted;
  }
  converted.msg->action = action;
  MIREL_TRACE(TRACE_RTO_DETAIL, OPERATION, "  Action %d \n\n", action);
  headerTrace(header);
  const uint32_t flags = flagsOf(header.rtm_type);
  converted.outcome = header.rtm_family == AF_INET ? ipv4Convert(header, attributes, flags, *converted.msg)
                                                   : ipv6Convert(header, attributes, flags, *converted.msg);
  return converted;
}

} // namespace

bool rtoRouteIsForeign(const NetlinkMessage &message, rtmsg *header) {
  if (message.payload.size() < sizeof *header) {
    return false;
  }
  memcpy(header, message.payload.data(), sizeof *header);
  return header->rtm_table == RT_TABLE_MAIN && header->rtm_protocol != OWN_ROUTE_PROTOCOL;
}

int rtoAcceptMsg(const NetlinkMessage &message) {
  constexpr const char *ACCEPT_OPERATION = "rtoAcceptMsg";
  const RtoCallTrace call(ACCEPT_OPERATION);
  rtmsg header{};
  const bool foreign = rtoRouteIsForeign(message, &header);
  MIREL_TRACE(TRACE_RTO_DETAIL, ACCEPT_OPERATION, "rcved message %d table %d protocol %d\n\n", message.type,
              header.rtm_table, header.rtm_protocol);
  if (foreign && message.type == RTM_NEWROUTE) {
    rtoExternalRouteProcess(message, RT_NETLINK_ADD);
  } else if (foreign && message.type == RTM_DELROUTE) {
    rtoWithdrawalCount += header.rtm_family == AF_INET6 ? 1 : 0;
    rtoExternalRouteProcess(message, RT_NETLINK_DELETE);
  }
  return 0;
}

void rtoExternalRouteProcess(const NetlinkMessage &message, uint32_t action) {
  const RtoCallTrace call(OPERATION);
  if (message.payload.size() < sizeof(rtmsg)) {
    return;
  }
  Converted converted = convert(message, action);
  if (!converted.msg) {
    rtoResyncRequest();
  } else if (converted.outcome != Conversion::DONE) {
    ++numExtRouteInvalid;
    if (converted.outcome == Conversion::UNANSWERED) {
      rtoResyncRequest();
    }
  } else if (!rtoMessageSend(std::move(converted.msg))) {
    ++numExtRouteQueueDrops;
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, " osapiMessageSend failed.\n");
    qvproc_logf(SEVERITY_ERROR, COMPONENT_RTO_NETLINK, LOG_AREA, __LINE__, "%s: osapiMessageSend failed, ", OPERATION);
    rtoResyncRequest();
  }
}

bool rtoDumpedRouteProcess(const NetlinkMessage &message) {
  Converted converted = convert(message, RT_RESYNC_ROUTE);
  if (!converted.msg || converted.outcome == Conversion::UNANSWERED) {
    return false;
  }
  return converted.outcome == Conversion::INVALID || rtoMessageSend(std::move(converted.msg));
}

bool rtoMessageSend(std::unique_ptr<rto_extRoute_msg> msg) {
  constexpr uint32_t NORMAL_PRIORITY = 0;
  rto_extRoute_msg *pointer = msg.get();
  if (osapiMessageSend(extRouteQueue, &pointer, sizeof pointer, QV_NO_WAIT, NORMAL_PRIORITY) != 0) {
    return false;
  }
  static_cast<void>(msg.release());
  return true;
}
