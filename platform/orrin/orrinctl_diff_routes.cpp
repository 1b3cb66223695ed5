// The comparison of routes: the switch's own against the agent's in the kernel's main table. The rules are those by which the agent
// installs; a route that it cannot install is still wanted, so that its absence shows. Only a route through an interface that is
// not up is not: the kernel holds none through a device that is down.
#include "orrinctl_diff.h"
#include "orrinctl_netlink.h"

#include <arpa/inet.h>
#include <array>
#include <optional>

namespace orrin {

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;

using RouteRows = Comparison::Rows<uint64_t>; // by prefix << 8 | length

// In the words of `ip route`.
std::string wayText(uint32_t gateway, const std::string &device) {
  std::string text;
  if (gateway != 0) {
    appendAddress(text = "via ", gateway);
  }
  if (!device.empty()) {
    text.append(text.empty() ? "dev " : " dev ").append(device);
  }
  return text;
}

// Nothing for a route that does not belong in the kernel. Without a device the kernel chooses one.
std::optional<std::string> wantedWay(const Switch &sw, const Vrf &vrf, const RouteAttrs &attrs) {
  if (attrs.type == RouteAttrs::LOCAL || (attrs.type == RouteAttrs::KERNEL && !attrs.installKernel)) {
    return std::nullopt;
  }
  if (attrs.reject) {
    return "unreachable";
  }
  if (attrs.viaVrfDevice) {
    return wayText(0, vrf.interfaceName + "_stk");
  }
  if (attrs.mpls || attrs.rfc5549) {
    return wayText(0, attrs.mpls ? "rt_mpls" : "rfc5549if");
  }
  if (attrs.hops.empty()) {
    return "nowhere";
  }
  const NextHop &lowest = *std::min_element(attrs.hops.begin(), attrs.hops.end(), [](const auto &a, const auto &b) {
    return a.address < b.address; // the first among equals
  });
  const auto found = sw.interfaces.find(lowest.interface);
  if (found == sw.interfaces.end() || !hasDevice(found->second)) {
    return wayText(lowest.address, "");
  }
  if (vrf.id != 0 && found->second.state != Interface::UP) {
    return std::nullopt;
  }
  return wayText(lowest.address, found->second.device);
}

RouteRows wantedRoutes(const Switch &sw, const Vrf &vrf, Comparison &comparison) {
  RouteRows rows;
  std::map<AttrId, std::optional<uint32_t>> ways;
  for (auto place = vrf.routes.first(); const RouteMap::Entry *entry = vrf.routes.at(place);
       place = vrf.routes.next(place)) {
    if (sw.attrs.reported(entry->value)) {
      continue;
    }
    ++comparison.onSwitch;
    const auto [known, isNew] = ways.try_emplace(entry->value);
    if (isNew) {
      if (auto text = wantedWay(sw, vrf, decodeAttrs(sw.attrs.body(entry->value)))) {
        known->second = comparison.wayOf(std::move(*text));
      }
    }
    if (known->second) {
      rows.push_back({uint64_t{entry->address} << 8 | entry->length, *known->second});
    }
  }
  return rows;
}

std::string kernelWay(uint8_t type, uint32_t gateway, const std::string &device) {
  switch (type) {
  case RTN_UNICAST:
    return wayText(gateway, device);
  case RTN_UNREACHABLE:
    return "unreachable";
  case RTN_BLACKHOLE:
    return "blackhole";
  case RTN_PROHIBIT:
    return "prohibit";
  default:
    return "type " + std::to_string(type);
  }
}

class KernelReader {
public:
  explicit KernelReader(Comparison &comparison) : comparison_(comparison) {}

  void add(const NetlinkMessage &message) {
    const auto header = headerOf<rtmsg>(message);
    if (message.type != RTM_NEWROUTE || !header || header->rtm_family != AF_INET ||
        header->rtm_protocol != AGENT_PROTOCOL) {
      return;
    }
    uint64_t prefix = 0;
    uint32_t table = header->rtm_table;
    std::array<uint32_t, 3> way = {header->rtm_type, 0, 0};
    for (const NetlinkAttr &attr : attrsBehind<rtmsg>(message)) {
      if (attr.type == RTA_DST) {
        prefix = ntohl(numberOf(attr));
      } else if (attr.type == RTA_GATEWAY) {
        way[1] = ntohl(numberOf(attr));
      } else if (attr.type == RTA_OIF) {
        way[2] = numberOf(attr);
      } else if (attr.type == RTA_TABLE) {
        table = numberOf(attr);
      }
    }
    if (table == RT_TABLE_MAIN) {
      rows.push_back({prefix << 8 | header->rtm_dst_len, wayOf(way)});
    }
  }

  RouteRows rows;

private:
  uint32_t wayOf(const std::array<uint32_t, 3> &way) {
    const auto [known, isNew] = ways_.try_emplace(way);
    if (isNew) {
      const std::string device = way[2] == 0 ? std::string() : comparison_.deviceOf(way[2]);
      known->second = comparison_.wayOf(kernelWay(static_cast<uint8_t>(way[0]), way[1], device));
    }
    return known->second;
  }

  Comparison &comparison_;
  std::map<std::array<uint32_t, 3>, uint32_t> ways_; // by type, gateway and device
};

} // namespace

std::string compareRoutes(const Switch &sw, const Vrf &vrf, Comparison &comparison) {
  rtmsg header{}; // the kernel filters by it, so that a million routes of others cost nothing
  header.rtm_family = AF_INET;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = AGENT_PROTOCOL;
  KernelReader kernel(comparison);
  KernelDump dump;
  const std::string error = dump.run(
      RTM_GETROUTE, header, [&] { kernel.rows.clear(); }, [&](const NetlinkMessage &message) { kernel.add(message); });
  if (!error.empty()) {
    return "routes: " + error;
  }
  RouteRows wanted = wantedRoutes(sw, vrf, comparison);
  comparison.wanted = wanted.size();
  comparison.inKernel = kernel.rows.size();
  comparison.run(wanted, kernel.rows, [](uint64_t key) {
    std::string name = "route ";
    appendPrefix(name, {static_cast<uint32_t>(key >> 8), static_cast<uint8_t>(key)});
    return name;
  });
  return {};
}

} // namespace orrin
