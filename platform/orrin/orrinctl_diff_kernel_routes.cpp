// The comparison of kernel routes: what the agent reported against the routes that other programs have put into the kernel's
// main table. The rules are those by which the agent reports; a route that it passes over is not expected.
#include "orrinctl_diff.h"
#include "orrinctl_netlink.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>

namespace orrin {

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;
constexpr uint32_t KERNEL_ROUTE_PROTO = 7; // of IPv4, as reported
constexpr uint32_t BROADCAST_ADDRESS = UINT32_MAX;

using KernelRows = Comparison::Rows<KernelRoute::Key>;

KernelRows::value_type rowOf(const KernelRoute &route, Comparison &comparison) {
  std::string words;
  appendKernelWords(words, route);
  return {route.key, comparison.wayOf(words.substr(std::min<size_t>(words.size(), 1)))};
}

struct RouteFields {
  IpAddress gateway;
  uint32_t device = 0;
  std::optional<uint32_t> priority;
  uint32_t metrics = 0; // the first word of them, which stands for a priority that is not there
  uint32_t table = 0;
};

IpAddress addressOf(const NetlinkAttr &attr, bool v6) {
  IpAddress address;
  address.v6 = v6;
  std::memcpy(address.bytes.data(), attr.data.data(), std::min<size_t>(attr.data.size(), v6 ? 16 : 4));
  return address;
}

RouteFields readFields(const rtmsg &header, const NetlinkMessage &message, KernelRoute &route) {
  const bool v6 = header.rtm_family == AF_INET6;
  RouteFields fields;
  fields.gateway.v6 = route.key.prefix.v6 = v6;
  fields.table = header.rtm_table;
  for (const NetlinkAttr &attr : attrsBehind<rtmsg>(message)) {
    if (attr.type == RTA_DST) {
      route.key.prefix = addressOf(attr, v6);
      route.key.length = header.rtm_dst_len;
    } else if (attr.type == RTA_GATEWAY) {
      fields.gateway = addressOf(attr, v6);
    } else if (attr.type == RTA_OIF) {
      fields.device = numberOf(attr);
    } else if (attr.type == RTA_PRIORITY) {
      fields.priority = numberOf(attr);
    } else if (attr.type == RTA_METRICS) {
      fields.metrics = numberOf(attr);
    } else if (attr.type == RTA_TABLE) {
      fields.table = numberOf(attr);
    }
  }
  return fields;
}

class Reader {
public:
  Reader(const Switch &sw, const Vrf &vrf, Comparison &comparison) : comparison_(comparison) {
    for (const auto &[number, interface] : sw.interfaces) {
      const bool isHere = interface.vrf == vrf.id && hasDevice(interface);
      if (const uint32_t index = isHere ? if_nametoindex(interface.device.c_str()) : 0) {
        interfaces_[index] = &interface;
      }
    }
  }

  void add(const NetlinkMessage &message) {
    const auto header = headerOf<rtmsg>(message);
    if (message.type != RTM_NEWROUTE || !header || header->rtm_protocol == AGENT_PROTOCOL) {
      return;
    }
    KernelRoute route;
    const RouteFields fields = readFields(*header, message, route);
    const bool v6 = header->rtm_family == AF_INET6;
    route.reject = header->rtm_type == RTN_UNREACHABLE || header->rtm_type == RTN_PROHIBIT;
    route.discard = header->rtm_type == RTN_BLACKHOLE;
    route.proto = v6 ? 0 : KERNEL_ROUTE_PROTO;
    route.key.metric = v6 ? 0 : fields.priority.value_or(fields.metrics);
    if (fields.table != RT_TABLE_MAIN || !isReported(route, *header) || !addHop(route, fields)) {
      return;
    }
    rows.push_back(rowOf(route, comparison_));
  }

  KernelRows rows;

private:
  static bool isReported(const KernelRoute &route, const rtmsg &header) {
    if (!route.key.prefix.v6) {
      return ipv4Number(route.key.prefix) != BROADCAST_ADDRESS;
    }
    in6_addr address;
    std::memcpy(&address, route.key.prefix.bytes.data(), sizeof address);
    const bool cloned = route.key.length == 128 && header.rtm_flags == RTM_F_CLONED;
    return !IN6_IS_ADDR_LINKLOCAL(&address) && !IN6_IS_ADDR_V4MAPPED(&address) && !cloned;
  }

  // False when the route is one that goes through a device of which the agent does not know an interface.
  bool addHop(KernelRoute &route, const RouteFields &fields) const {
    if (route.reject || route.discard) {
      return true;
    }
    const auto interface = interfaces_.find(fields.device);
    if (interface == interfaces_.end() || !(interface->second->state == Interface::UP || route.key.prefix.v6)) {
      return false;
    }
    route.hops.push_back({fields.gateway, interface->second->number});
    return true;
  }

  Comparison &comparison_;
  std::map<uint32_t, const Interface *> interfaces_; // by kernel index
};

std::string readForeignRoutes(Reader &reader) {
  KernelDump dump;
  for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
    rtmsg header{};
    header.rtm_family = family;
    header.rtm_table = RT_TABLE_MAIN;
    const auto again = [&reader, family] {
      std::erase_if(reader.rows, [family](const auto &row) { return row.key.prefix.v6 == (family == AF_INET6); });
    };
    const std::string error =
        dump.run(RTM_GETROUTE, header, again, [&reader](const NetlinkMessage &message) { reader.add(message); });
    if (!error.empty()) {
      return "routes: " + error;
    }
  }
  return {};
}

} // namespace

std::string compareKernelRoutes(const Switch &sw, const Vrf &vrf, Comparison &comparison) {
  Reader kernel(sw, vrf, comparison);
  if (std::string error = readForeignRoutes(kernel); !error.empty()) {
    return error;
  }
  KernelRows reported;
  for (const auto &[key, route] : vrf.kernelRoutes) {
    reported.push_back(rowOf(route, comparison));
  }
  comparison.onSwitch = comparison.wanted = reported.size();
  comparison.inKernel = kernel.rows.size();
  // The switch holds one of a key, the kernel may hold more.
  const auto nameOf = [](const KernelRoute::Key &key) {
    std::string name = "kernel-route ";
    appendKernelPrefix(name, key);
    return name;
  };
  comparison.run(reported, kernel.rows, nameOf, true);
  return {};
}

} // namespace orrin
