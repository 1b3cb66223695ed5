// The kernel's side of a comparison of routes: one dump of the agent's routes. The kernel filters the dump by table and
// protocol, so that a million routes of others cost nothing.
#include "orrinctl_mirror.h"
#include "orrinctl_netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <map>
#include <net/if.h>

namespace {

constexpr uint8_t AGENT_PROTOCOL = 25;

class DeviceIndexes {
public:
  explicit DeviceIndexes(DeviceNames &devices) : devices_(devices) {}

  uint16_t deviceOf(uint32_t index) {
    const auto [entry, isNew] = known_.try_emplace(index, uint16_t{0});
    if (isNew) {
      std::array<char, IF_NAMESIZE> name{};
      const bool found = if_indextoname(index, name.data()) != nullptr;
      entry->second = devices_.idOf(found ? name.data() : "if" + std::to_string(index));
    }
    return entry->second;
  }

private:
  DeviceNames &devices_;
  std::map<uint32_t, uint16_t> known_;
};

void addRoute(const NetlinkMessage &message, DeviceIndexes &indexes, std::vector<MirrorRoute> &routes) {
  const auto header = headerOf<rtmsg>(message);
  if (message.type != RTM_NEWROUTE || !header || header->rtm_family != AF_INET ||
      header->rtm_protocol != AGENT_PROTOCOL) {
    return;
  }
  MirrorRoute route;
  route.length = header->rtm_dst_len;
  route.type = header->rtm_type;
  uint32_t table = header->rtm_table;
  for (const NetlinkAttr &attr : attrsBehind<rtmsg>(message)) {
    switch (attr.type) {
    case RTA_DST:
      route.prefix = ntohl(numberOf(attr));
      break;
    case RTA_GATEWAY:
      route.gateway = ntohl(numberOf(attr));
      break;
    case RTA_OIF:
      route.device = indexes.deviceOf(numberOf(attr));
      break;
    case RTA_TABLE:
      table = numberOf(attr);
      break;
    default:
      break;
    }
  }
  if (table == RT_TABLE_MAIN) {
    routes.push_back(route);
  }
}

} // namespace

std::string readKernelRoutes(DeviceNames &devices, std::vector<MirrorRoute> &routes) {
  rtmsg header{};
  header.rtm_family = AF_INET;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = AGENT_PROTOCOL;
  DeviceIndexes indexes(devices);
  KernelDump dump;
  const std::string error = dump.run(
      RTM_GETROUTE, header, [&] { routes.clear(); },
      [&](const NetlinkMessage &message) { addRoute(message, indexes, routes); });
  std::stable_sort(routes.begin(), routes.end(),
                   [](const MirrorRoute &a, const MirrorRoute &b) { return a.key() < b.key(); });
  return error.empty() ? error : "routes: " + error;
}
