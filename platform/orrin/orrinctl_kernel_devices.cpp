// The kernel's side of a comparison of interfaces: links, IPv4 addresses and memberships of the all-routers group.
#include "orrinctl_mirror.h"
#include "orrinctl_netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <net/if.h>
#include <sstream>

namespace {

constexpr const char *MEMBERSHIPS = "/proc/thread-self/net/igmp";
constexpr uint32_t ALL_ROUTERS = 0xE0000002; // 224.0.0.2

struct KernelLink {
  std::string name;
  MirrorDevice device;
};

using KernelLinks = std::map<uint32_t, KernelLink>; // by index

std::string textOf(const NetlinkAttr &attr) {
  const auto *text = reinterpret_cast<const char *>(attr.data.data());
  return {text, strnlen(text, attr.data.size())};
}

void addLink(const NetlinkMessage &message, KernelLinks &links) {
  const auto header = headerOf<ifinfomsg>(message);
  if (message.type != RTM_NEWLINK || !header) {
    return;
  }
  KernelLink link;
  link.device.up = (header->ifi_flags & IFF_UP) != 0;
  for (const NetlinkAttr &attr : attrsBehind<ifinfomsg>(message)) {
    if (attr.type == IFLA_IFNAME) {
      link.name = textOf(attr);
    } else if (attr.type == IFLA_MTU) {
      link.device.mtu = numberOf(attr);
    } else if (attr.type == IFLA_ADDRESS && attr.data.size() == link.device.mac.size()) {
      std::memcpy(link.device.mac.data(), attr.data.data(), link.device.mac.size());
    }
  }
  links[static_cast<uint32_t>(header->ifi_index)] = std::move(link);
}

void addAddress(const NetlinkMessage &message, KernelLinks &links) {
  const auto header = headerOf<ifaddrmsg>(message);
  if (message.type != RTM_NEWADDR || !header || header->ifa_family != AF_INET) {
    return;
  }
  MirrorAddress address;
  address.length = header->ifa_prefixlen;
  for (const NetlinkAttr &attr : attrsBehind<ifaddrmsg>(message)) {
    if (attr.type == IFA_LOCAL) {
      address.address = ntohl(numberOf(attr));
    } else if (attr.type == IFA_LABEL) {
      address.label = textOf(attr);
    }
  }
  if (const auto link = links.find(header->ifa_index); link != links.end()) {
    link->second.device.addresses.push_back(std::move(address));
  }
}

// A line for each device, "<index>\t<name>: <count> ...", and below it one for each group, the address in the kernel's
// byte order as hexadecimal digits.
std::string readMemberships(KernelLinks &links) {
  std::ifstream file(MEMBERSHIPS);
  if (!file) {
    return systemError(std::string("cannot read ") + MEMBERSHIPS);
  }
  KernelLink *current = nullptr;
  std::string line;
  std::getline(file, line); // the heading
  while (std::getline(file, line)) {
    std::istringstream words(line);
    if (!line.starts_with('\t')) {
      uint32_t index = 0;
      words >> index;
      const auto link = links.find(index);
      current = link != links.end() ? &link->second : nullptr;
      continue;
    }
    uint32_t group = 0;
    words >> std::hex >> group;
    if (current != nullptr && ntohl(group) == ALL_ROUTERS) {
      current->device.allRouters = true;
    }
  }
  return {};
}

} // namespace

std::string readKernelDevices(std::map<std::string, MirrorDevice> &devices) {
  KernelDump dump;
  KernelLinks links;
  std::string error = dump.run(
      RTM_GETLINK, ifinfomsg{}, [&] { links.clear(); },
      [&](const NetlinkMessage &message) { addLink(message, links); });
  if (!error.empty()) {
    return "links: " + error;
  }
  ifaddrmsg wanted{};
  wanted.ifa_family = AF_INET;
  const auto withoutAddresses = [&] {
    for (auto &[index, link] : links) {
      link.device.addresses.clear();
    }
  };
  error = dump.run(RTM_GETADDR, wanted, withoutAddresses,
                   [&](const NetlinkMessage &message) { addAddress(message, links); });
  if (!error.empty()) {
    return "addresses: " + error;
  }
  error = readMemberships(links);
  for (auto &[index, link] : links) {
    std::sort(link.device.addresses.begin(), link.device.addresses.end());
    devices[link.name] = std::move(link.device);
  }
  return error;
}
