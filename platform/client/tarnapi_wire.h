// What libtarnapi.so and orrin say to each other: one datagram a request, one a reply, over a local SEQPACKET socket.
// orrin speaks first on a new connection, with a Hello that carries the descriptor of the published page (published.h).
// A connection has one request under way at a time. Host byte order; addresses are host-order numbers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace tarnwire {

inline constexpr const char *SOCKET_VARIABLE = "ORRIN_SOCKET";
inline constexpr const char *DEFAULT_SOCKET = "/run/orrin/api";

inline constexpr uint32_t PROTOCOL = 0x74617207; // changes with anything in this header or in published.h

enum Op : uint32_t {
  SERVICE_CLIENT_REGISTER,
  CONNECTIVITY_CHECK,
  SYSTEM_READY_STATE_GET,
  VRF_NAME_GET,
  VRF_INTF_NAME_GET,
  ROUTING_STARTUP_STATUS,
  ICMP_RATELIMIT_GET,
  ICMP_ECHO_REPLY_MODE_GET,
  ROUTER_EVENT_REGISTER,
  ROUTER_EVENT_ACKNOWLEDGE,
  ROUTER_EVENT_DEREGISTER,
  INTF_NEXT_GET,
  INTF_TYPE_GET,
  INTF_NAME_GET,
  INTF_STK_NAME_GET,
  INTF_IP_STACK_NAME_GET,
  INTF_IP_STACK_INDEX_GET,
  INTF_MAC_GET,
  INTF_ADDR_GET,
  INTF_SEC_ADDR_GET,
  INTF_MTU_GET,
  INTF_BANDWIDTH_GET,
  ICMP_UNREACHABLES_MODE_GET,
  ICMP_REDIRECTS_MODE_GET,
  SERVICE_PORT_GATEWAY_GET,
  NETWORK_PORT_GATEWAY_GET,
  KERNEL_ARP_ADD,
  KERNEL_ARP_DELETE,
  ARP_RESOLVE,
  STACK_INDEX_INTERFACE_GET,
  BEST_ROUTE_REGISTER,
  BEST_ROUTE_DEREGISTER,
  BEST_ROUTE_CHANGE_NEXT_GET,
  INTF_BEST_ROUTES_NEXT_GET,
  ROUTING_PROTOCOL_REGISTER,
  ROUTE_TYPE_REGISTER,
  KERNEL_ROUTE_ADD,
  KERNEL_ROUTE_DELETE,
  PROBE_RESULT,
  OP_COUNT
};

// One row a request: the function that makes it and the bytes it may carry behind the Request record. `arguments` and
// `values` say what args and Reply::values hold, in order.
struct OpInfo {
  Op op;
  const char *function;
  uint32_t tailMax;
  const char *arguments;
  const char *values;
};

inline constexpr uint32_t NAME_MAX_BYTES = 255; // a text in a request, without its NUL
inline constexpr uint32_t MAC_BYTES = 6;

// A kernel route behind a request: this, then its next hops. Addresses as in InetAddr, IPv4 in host byte order.
struct ReportedRoute {
  uint32_t family;
  uint8_t prefix[16];
  uint32_t proto;
  uint32_t metric;
  uint8_t length;
  uint8_t type; // as BestRouteRecord::routeType
  uint8_t reject;
  uint8_t discard;
};

struct ReportedHop {
  uint32_t family;
  uint8_t address[16];
  uint32_t interface;
};

inline constexpr size_t REPORTED_HOPS_MAX = 16;
inline constexpr uint32_t REPORT_MAX_BYTES = sizeof(ReportedRoute) + REPORTED_HOPS_MAX * sizeof(ReportedHop);

static_assert(sizeof(ReportedRoute) == 32 && std::is_trivially_copyable_v<ReportedRoute>);
static_assert(sizeof(ReportedHop) == 24 && std::is_trivially_copyable_v<ReportedHop>);

// clang-format off
inline constexpr std::array<OpInfo, OP_COUNT> OPS = {{
    {SERVICE_CLIENT_REGISTER,    "tarnapiServiceClientRegister", 0, "", ""},
    {CONNECTIVITY_CHECK,         "rpcclt_tarnapiConnectivityCheck", 0, "", ""},
    {SYSTEM_READY_STATE_GET,     "tarnapiSystemReadyStateGet", 0, "", "ready"},
    {VRF_NAME_GET,               "rpcclt_tarnapiVrfNameGet", 0, "vrf", "; name"},
    {VRF_INTF_NAME_GET,          "rpcclt_tarnapiVrfIntfNameGet", 0, "vrf", "; name"},
    {ROUTING_STARTUP_STATUS,     "rpcclt_tarnapiRoutingStartupStatusVr", 0, "family vrf", "status"},
    {ICMP_RATELIMIT_GET,         "rpcclt_tarnapiRtrICMPRatelimitGet", NAME_MAX_BYTES, "; vrf name", "burst interval"},
    {ICMP_ECHO_REPLY_MODE_GET,   "rpcclt_tarnapiRtrICMPEchoReplyModeGet", NAME_MAX_BYTES, "; vrf name", "mode"},
    {ROUTER_EVENT_REGISTER,      "rpcclt_tarnapiRouterEventRegister", NAME_MAX_BYTES, "family pid vrf; name", "client"},
    {ROUTER_EVENT_ACKNOWLEDGE,   "rpcclt_tarnapiRouterEventAcknowledge", 0, "vrf client sequence", ""},
    {ROUTER_EVENT_DEREGISTER,    "rpcclt_tarnapiRouterEventDeregister", 0, "vrf client", ""},
    {INTF_NEXT_GET,              "rpcclt_tarnapiRtrIntfNextGetVrf", 0, "vrf previous", "next"},
    {INTF_TYPE_GET,              "rpcclt_tarnapiRtrIntfTypeGet", 0, "interface", "type"},
    {INTF_NAME_GET,              "rpcclt_tarnapiRtrIntfNameGet", 0, "interface", "; name"},
    {INTF_STK_NAME_GET,          "rpcclt_tarnapiRtrIntfIpStackStkNameGet", 0, "vrf interface", "; name"},
    {INTF_IP_STACK_NAME_GET,     "rpcclt_tarnapiRtrIntfIpStackIfNameGet", 0, "interface", "; name"},
    {INTF_IP_STACK_INDEX_GET,    "rpcclt_tarnapiRtrIntfIpStackIfIndexGet", 0, "interface", "index"},
    {INTF_MAC_GET,               "rpcclt_tarnapiRtrIntfL3MacAddressGet", 0, "interface", "; mac"},
    {INTF_ADDR_GET,              "rpcclt_tarnapiRtrIntfIpAddrGet", 0, "family interface", "address length"},
    {INTF_SEC_ADDR_GET,          "rpcclt_tarnapiRtrIntfSecIpAddrGet", 0, "family interface address length",
                                 "address length index"},
    {INTF_MTU_GET,               "rpcclt_tarnapiIntfIpMtuGet", 0, "family interface", "mtu"},
    {INTF_BANDWIDTH_GET,         "rpcclt_tarnapiIntfBandwidthGet", 0, "family interface", "bandwidth"},
    {ICMP_UNREACHABLES_MODE_GET, "rpcclt_tarnapiRtrICMPUnreachablesModeGet", 0, "interface", "mode"},
    {ICMP_REDIRECTS_MODE_GET,    "rpcclt_tarnapiRtrICMPRedirectsModeGet", 0, "interface", "mode"},
    {SERVICE_PORT_GATEWAY_GET,   "rpcclt_tarnapiServicePortGatewayIPv4AddrGet", 0, "", "address"},
    {NETWORK_PORT_GATEWAY_GET,   "rpcclt_tarnapiNetworkPortGatewayIPv4AddrGet", 0, "", "address"},
    {KERNEL_ARP_ADD,             "rpcclt_tarnapiKernelArpAdd", MAC_BYTES, "vrf family address index state; mac", ""},
    {KERNEL_ARP_DELETE,          "rpcclt_tarnapiKernelArpDelete", 0, "vrf family address index", ""},
    {ARP_RESOLVE,                "rpcclt_tarnapiArpResolve", 0, "vrf family address index flags", "; mac"},
    {STACK_INDEX_INTERFACE_GET,  "rpcclt_tarnapiStackIfIndexIntIfNumGet", 0, "index", "interface"},
    {BEST_ROUTE_REGISTER,        "rpcclt_tarnapiBestRouteEventRegisterVr", NAME_MAX_BYTES, "vrf family pid; name", "client"},
    {BEST_ROUTE_DEREGISTER,      "rpcclt_tarnapiBestRouteEventDeregister", 0, "client", ""},
    {BEST_ROUTE_CHANGE_NEXT_GET, "rpcclt_tarnapiBestRouteChangeNextGetMult", 0, "client handed-out more-wanted",
                                 "table-changes(2 words, low first); routes"},
    {INTF_BEST_ROUTES_NEXT_GET,  "rpcclt_tarnapiIntfBestRoutesNextGet", 0, "client interface count prefix length",
                                 "; routes"},
    {ROUTING_PROTOCOL_REGISTER,  "rpcclt_tarnapiRoutingProtocolRegister", 2 * NAME_MAX_BYTES,
                                 "vrf family protocol name-length; name code", "protocol"},
    {ROUTE_TYPE_REGISTER,        "rpcclt_tarnapiRouteTypeRegister", 2 * NAME_MAX_BYTES,
                                 "family protocol name-length; name code", "type"},
    {KERNEL_ROUTE_ADD,           "rpcclt_tarnapiKernelRouteAddVr", REPORT_MAX_BYTES, "vrf; route", ""},
    {KERNEL_ROUTE_DELETE,        "rpcclt_tarnapiKernelRouteDelVr", REPORT_MAX_BYTES, "vrf; route", ""},
    {PROBE_RESULT,               "rpcclt_tarnapiMirelProbeResultIpSlaNotify", 0,
                                 "vrf operation code milliseconds microseconds", ""},
}};
// clang-format on

constexpr bool opsInOrder() {
  for (uint32_t row = 0; row < OP_COUNT; ++row) {
    if (OPS[row].op != row) {
      return false;
    }
  }
  return true;
}
static_assert(opsInOrder());

constexpr uint32_t longestTail() {
  uint32_t longest = 0;
  for (const OpInfo &info : OPS) {
    longest = info.tailMax > longest ? info.tailMax : longest;
  }
  return longest;
}

struct Hello {
  uint32_t protocol;
  uint32_t publishedSize;
};

struct Request {
  uint32_t op;
  uint32_t sequence;
  std::array<uint32_t, 6> args;
};

struct Reply {
  uint32_t sequence;
  int32_t result; // a tarnapi.h result code
  std::array<uint32_t, 6> values;
};

inline constexpr size_t REQUEST_MAX = sizeof(Request) + longestTail();
inline constexpr size_t REPLY_MAX = 32768;

// Routes behind a reply, one after the other: RouteKey, then, unless the change is a delete, RouteBody and its next hops.
struct RouteKey {
  uint32_t prefix;
  uint8_t length;
  uint8_t change; // as BestRouteRecord::changeType
  uint8_t reserved6[2];
};

enum RouteFlag : uint16_t {
  ROUTE_REJECT = 1,
  ROUTE_DISCARD = 2,
  ROUTE_VIA_VRF_DEVICE = 4,
  ROUTE_RFC5549 = 8,
  ROUTE_MPLS = 16,
  ROUTE_FLAG8000 = 32,
  ROUTE_INSTALL_KERNEL = 64,
  ROUTE_REPORTED = 128, // orrin's own mark: what it is told back says nothing about it
};

enum RouteChange : uint8_t { ROUTE_ADD = 0, ROUTE_DELETE = 1, ROUTE_MODIFY = 2 };

struct RouteBody {
  uint32_t metric;
  uint32_t proto;
  uint16_t flags; // RouteFlag
  uint8_t type;   // as BestRouteRecord::routeType
  uint8_t hopCount;
};

struct RouteHop {
  uint32_t address;
  uint32_t interface;
};

inline constexpr uint32_t MAX_HOPS = 48;
inline constexpr size_t ROUTE_MAX_BYTES = sizeof(RouteKey) + sizeof(RouteBody) + MAX_HOPS * sizeof(RouteHop);

static_assert(sizeof(Hello) == 8 && std::is_trivially_copyable_v<Hello>);
static_assert(sizeof(Request) == 32 && std::is_trivially_copyable_v<Request>);
static_assert(sizeof(Reply) == 32 && std::is_trivially_copyable_v<Reply>);
static_assert(sizeof(RouteKey) == 8 && std::is_trivially_copyable_v<RouteKey>);
static_assert(sizeof(RouteBody) == 12 && std::is_trivially_copyable_v<RouteBody>);
static_assert(sizeof(RouteHop) == 8 && std::is_trivially_copyable_v<RouteHop>);

} // namespace tarnwire
