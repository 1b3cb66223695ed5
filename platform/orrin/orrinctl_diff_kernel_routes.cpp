// The comparison of kernel routes: what the agent reported against the routes that other programs have put into the kernel's
// main table. The rules are those by which the agent reports; a route that it passes over is not expected.
#include "orrinctl_mirror.h"
#include "orrinctl_netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;
constexpr uint32_t KERNEL_ROUTE_PROTO = 7; // of IPv4, as reported
constexpr uint32_t BROADCAST_ADDRESS = UINT32_MAX;

using orrin::IpAddress;
using orrin::KernelRoute;
using KernelRoutes = std::multimap<KernelRoute::Key, KernelRoute>; // the switch holds one of a key, the kernel may hold more

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
  explicit Reader(const MirrorVrf &vrf) {
    for (const MirrorInterface &interface : vrf.interfaces) {
      const uint32_t index = if_nametoindex(interface.device.c_str());
      if (index != 0) {
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
    routes.emplace(route.key, route);
  }

  KernelRoutes routes;

private:
  static bool isReported(const KernelRoute &route, const rtmsg &header) {
    if (!route.key.prefix.v6) {
      return orrin::ipv4Number(route.key.prefix) != BROADCAST_ADDRESS;
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
    if (interface == interfaces_.end() || !(interface->second->wanted.up || route.key.prefix.v6)) {
      return false;
    }
    route.hops.push_back({fields.gateway, interface->second->number});
    return true;
  }

  std::map<uint32_t, const MirrorInterface *> interfaces_; // by kernel index
};

std::string readForeignRoutes(Reader &reader) {
  KernelDump dump;
  for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
    rtmsg header{};
    header.rtm_family = family;
    header.rtm_table = RT_TABLE_MAIN;
    const auto again = [&reader, family] {
      std::erase_if(reader.routes,
                    [family](const auto &entry) { return entry.first.prefix.v6 == (family == AF_INET6); });
    };
    const std::string error =
        dump.run(RTM_GETROUTE, header, again, [&reader](const NetlinkMessage &message) { reader.add(message); });
    if (!error.empty()) {
      return "routes: " + error;
    }
  }
  return {};
}

std::string wordsOf(const KernelRoute &route) {
  std::string text;
  orrin::appendKernelWords(text, route);
  return text;
}

} // namespace

std::string compareKernelRoutes(const MirrorVrf &vrf, DeviceNames & /*devices*/, bool print, MirrorCounts &counts) {
  Reader reader(vrf);
  if (std::string error = readForeignRoutes(reader); !error.empty()) {
    return error;
  }
  counts = {vrf.kernelRoutes.size(), vrf.kernelRoutes.size(), reader.routes.size(), 0};
  const auto report = [&](char sign, const KernelRoute::Key &key, const std::string &what) {
    ++counts.different;
    if (print) {
      std::string prefix;
      orrin::appendKernelPrefix(prefix, key);
      std::printf("%c vrf %u kernel-route %s%s\n", sign, vrf.id, prefix.c_str(), what.c_str());
    }
  };
  for (const auto &[key, route] : vrf.kernelRoutes) {
    const auto [first, last] = reader.routes.equal_range(key);
    if (first == last) {
      report('-', key, wordsOf(route));
    } else if (std::none_of(first, last, [&route](const auto &have) { return have.second == route; })) {
      report('~', key, " switch" + wordsOf(route) + ", kernel" + wordsOf(first->second));
    }
  }
  for (const auto &[key, route] : reader.routes) {
    if (!vrf.kernelRoutes.contains(key)) {
      report('+', key, wordsOf(route));
    }
  }
  return {};
}
